// Test tables kept as data: a JSON file holds named arrays, one element per case.
#pragma once

#include <string>
#include <vector>

#include <nk/json.h>

namespace nk::test {

class Row {
public:
    explicit Row(const json_t* json) : json_(json) {}
    // Members by key; a null key is the row itself. In strings "\xHH" stands for a byte JSON
    // cannot hold, and NULs come through.
    std::string str(const char* key = nullptr) const;
    long long num(const char* key) const { return json_integer_value(get(key)); }
    bool flag(const char* key) const { return json_is_true(get(key)); }
    bool has(const char* key) const { return get(key) != nullptr; }
    std::vector<std::string> strs(const char* key) const;
    const json_t* get(const char* key) const { return key ? json_object_get(json_, key) : json_; }
    // The row as written, to name the failing case.
    std::string text() const { return json_dump_compact(json_); }

private:
    const json_t* json_;
};

class Table {
public:
    // The array `name` of the JSON file at `path`; a missing file or array fails the test.
    Table(const std::string& path, const char* name);
    std::vector<Row>::const_iterator begin() const { return rows_.begin(); }
    std::vector<Row>::const_iterator end() const { return rows_.end(); }

private:
    nk::json_ptr file_;
    std::vector<Row> rows_;
};

}  // namespace nk::test
