// Cases kept as data: JSON files of named arrays and JSON-lines files (one Row per case),
// tab-separated tables, patterns to match JSON answers with, and command lines with the status
// and output each must give.
#pragma once

#include <fstream>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include <nk/json.h>

namespace nk::test {

// One case. Absent members read as empty, false or `fallback`, so rows name only what matters
// to them. The row and its accessors are inline: benchmarks read the same rows without gtest.
class Row {
public:
    explicit Row(const json_t* json) : json_(json) {}
    // A null key is the row itself. In strings "\xHH" stands for a byte JSON cannot hold, and
    // NULs come through.
    std::string str(const char* key = nullptr) const {
        const json_t* value = get(key);
        const std::string raw(json_is_string(value) ? json_string_value(value) : "",
                              json_string_length(value));
        std::string out;
        for (std::size_t i = 0; i < raw.size(); ++i) {
            const bool byte = raw.compare(i, 2, "\\x") == 0 && i + 4 <= raw.size();
            out += byte ? static_cast<char>(std::stoi(raw.substr(i + 2, 2), nullptr, 16)) : raw[i];
            i += byte ? 3 : 0;
        }
        return out;
    }
    long long num(const char* key, long long fallback = 0) const {
        return json_is_integer(get(key)) ? json_integer_value(get(key)) : fallback;
    }
    bool flag(const char* key) const { return json_is_true(get(key)); }
    bool has(const char* key) const { return get(key) != nullptr; }
    std::vector<std::string> strs(const char* key) const {
        std::vector<std::string> out;
        for (std::size_t i = 0; i < json_array_size(get(key)); ++i)
            out.push_back(Row(json_array_get(get(key), i)).str());
        return out;
    }
    std::vector<long long> nums(const char* key) const {
        std::vector<long long> out;
        for (std::size_t i = 0; i < json_array_size(get(key)); ++i)
            out.push_back(json_integer_value(json_array_get(get(key), i)));
        return out;
    }
    // Not const: jansson's iteration macros take a mutable value.
    json_t* get(const char* key) const {
        return key ? json_object_get(json_, key) : const_cast<json_t*>(json_);
    }
    // The row as written, to name the failing case.
    std::string text() const { return json_dump_compact(json_); }

private:
    const json_t* json_;
};

// One JSON document a line, a Row each, blank lines left out; throws when the file cannot be
// read.
class Lines {
public:
    explicit Lines(const std::string& path) {
        std::ifstream in(path);
        if (!in)
            throw std::runtime_error("no data file " + path);
        json_error_t error{};
        for (std::string line; std::getline(in, line);) {
            if (line.empty())
                continue;
            if (!docs_.emplace_back(json_loads(line.c_str(), JSON_ALLOW_NUL, &error)))
                throw std::runtime_error(path + ": " + error.text);
            rows_.emplace_back(docs_.back().get());
        }
    }
    std::vector<Row>::const_iterator begin() const { return rows_.begin(); }
    std::vector<Row>::const_iterator end() const { return rows_.end(); }

private:
    std::vector<nk::json_ptr> docs_;
    std::vector<Row> rows_;
};

// The rows of the array `name` of the JSON file at `path`; a missing file or array fails the
// test.
class Table {
public:
    Table(const std::string& path, const char* name);
    std::vector<Row>::const_iterator begin() const { return rows_.begin(); }
    std::vector<Row>::const_iterator end() const { return rows_.end(); }

private:
    nk::json_ptr file_;
    std::vector<Row> rows_;
};

// The whole file; a test failure when it cannot be read.
std::string read_data(const std::string& path);
nk::json_ptr load_json(const std::string& path);

// The rows of a tab-separated file, blank and '#' lines left out, each field with C escapes
// (\t \n \r \\ \xNN) undone.
std::vector<std::vector<std::string>> read_table(const std::string& path);

// Every "{name}" in text replaced by its value.
std::string expand(std::string text, const std::map<std::string, std::string>& values);

// Fails the test where `got` differs from the pattern `want`: objects hold at least the
// pattern's members (null: the member is absent), arrays are matched element by element, a
// string "$name" binds a variable at first sight and must equal it afterwards, "~regex" (or
// "$name~regex") must match the value's text, anything else must be equal.
void match_json(const json_t* want, const json_t* got, std::map<std::string, std::string>& vars,
                const std::string& at = "");

// Runs each row of a table "command line <tab> exit status <tab> text..." after expand(), with
// stderr joined to stdout; the output must hold each text ("!text": must not).
void check_commands(const std::string& table, const std::map<std::string, std::string>& values);

}  // namespace nk::test
