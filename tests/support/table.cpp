#include "table.h"

#include <gtest/gtest.h>

namespace nk::test {

std::string Row::str(const char* key) const {
    const json_t* value = get(key);
    const std::string raw(json_string_value(value) ? json_string_value(value) : "",
                          json_string_length(value));
    std::string out;
    for (std::size_t i = 0; i < raw.size(); ++i) {
        if (raw.compare(i, 2, "\\x") == 0 && i + 4 <= raw.size()) {
            out += static_cast<char>(std::stoi(raw.substr(i + 2, 2), nullptr, 16));
            i += 3;
        } else {
            out += raw[i];
        }
    }
    return out;
}

std::vector<std::string> Row::strs(const char* key) const {
    std::vector<std::string> out;
    std::size_t i = 0;
    const json_t* item = nullptr;
    json_array_foreach(get(key), i, item) out.push_back(Row(item).str());
    return out;
}

Table::Table(const std::string& path, const char* name) {
    json_error_t error{};
    file_.reset(json_load_file(path.c_str(), JSON_ALLOW_NUL, &error));
    EXPECT_TRUE(file_) << path << ":" << error.line << ": " << error.text;
    const json_t* rows = json_object_get(file_.get(), name);
    EXPECT_TRUE(json_array_size(rows) > 0) << path << " has no rows '" << name << "'";
    std::size_t i = 0;
    const json_t* row = nullptr;
    json_array_foreach(rows, i, row) rows_.emplace_back(row);
}

}  // namespace nk::test
