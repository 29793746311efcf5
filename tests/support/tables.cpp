#include "tables.h"

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <regex>
#include <sstream>

#include "temp_dir.h"

namespace nk::test {

Table::Table(const std::string& path, const char* name) : file_(load_json(path)) {
    const json_t* rows = json_object_get(file_.get(), name);
    EXPECT_TRUE(json_array_size(rows) > 0) << path << " has no rows '" << name << "'";
    std::size_t i = 0;
    const json_t* row = nullptr;
    json_array_foreach(rows, i, row) rows_.emplace_back(row);
}

std::string read_data(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    EXPECT_TRUE(in) << path;
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

nk::json_ptr load_json(const std::string& path) {
    json_error_t error;
    nk::json_ptr json(
        json_load_file(path.c_str(), JSON_REJECT_DUPLICATES | JSON_ALLOW_NUL, &error));
    EXPECT_TRUE(json) << path << ":" << error.line << ": " << error.text;
    return json;
}

static std::string unescape(const std::string& text) {
    std::string out;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '\\' || i + 1 == text.size()) {
            out += text[i];
            continue;
        }
        const char c = text[++i];
        if (c == 'x') {
            out += static_cast<char>(std::stoi(text.substr(i + 1, 2), nullptr, 16));
            i += 2;
        } else {
            out += c == 't' ? '\t' : c == 'n' ? '\n' : c == 'r' ? '\r' : c;
        }
    }
    return out;
}

std::vector<std::vector<std::string>> read_table(const std::string& path) {
    std::istringstream in(read_data(path));
    std::vector<std::vector<std::string>> rows;
    for (std::string line; std::getline(in, line);) {
        if (line.empty() || line[0] == '#')
            continue;
        std::vector<std::string>& row = rows.emplace_back();
        std::istringstream fields(line);
        for (std::string field; std::getline(fields, field, '\t');)
            row.push_back(unescape(field));
    }
    return rows;
}

std::string expand(std::string text, const std::map<std::string, std::string>& values) {
    for (const auto& [name, value] : values) {
        const std::string key = "{" + name + "}";
        for (std::size_t at = 0; (at = text.find(key, at)) != std::string::npos; at += value.size())
            text.replace(at, key.size(), value);
    }
    return text;
}

void match_json(const json_t* want, const json_t* got, std::map<std::string, std::string>& vars,
                const std::string& at) {
    if (json_is_null(want)) {
        EXPECT_EQ(got, nullptr) << at << " should be absent";
        return;
    }
    ASSERT_NE(got, nullptr) << at << " is missing";
    if (json_is_object(want)) {
        ASSERT_TRUE(json_is_object(got)) << at << ": " << nk::json_dump_compact(got);
        const char* key = nullptr;
        json_t* value = nullptr;
        json_object_foreach(const_cast<json_t*>(want), key, value) {
            match_json(value, json_object_get(got, key), vars, at + "." + key);
        }
    } else if (json_is_array(want)) {
        ASSERT_EQ(json_array_size(want), json_array_size(got))
            << at << ": " << nk::json_dump_compact(got);
        for (std::size_t i = 0; i < json_array_size(want); ++i)
            match_json(json_array_get(want, i), json_array_get(got, i), vars,
                       at + "[" + std::to_string(i) + "]");
    } else if (const std::string pattern = json_is_string(want) ? json_string_value(want) : "";
               !pattern.empty() && (pattern[0] == '$' || pattern[0] == '~')) {
        const std::string text =
            json_is_string(got) ? json_string_value(got) : nk::json_dump_compact(got);
        const std::size_t tilde = pattern.find('~');
        if (tilde != std::string::npos) {
            EXPECT_TRUE(std::regex_search(text, std::regex(pattern.substr(tilde + 1))))
                << at << ": " << text;
        }
        if (pattern[0] == '$') {
            const auto [known, added] = vars.emplace(pattern.substr(1, tilde - 1), text);
            EXPECT_EQ(text, known->second) << at << " is not " << pattern;
        }
    } else {
        EXPECT_TRUE(json_equal(want, got))
            << at << ": " << nk::json_dump_compact(got) << ", not " << nk::json_dump_compact(want);
    }
}

void check_commands(const std::string& table, const std::map<std::string, std::string>& values) {
    for (const std::vector<std::string>& row : read_table(table)) {
        ASSERT_GE(row.size(), 3u) << table;
        const std::string args = expand(row[0], values);
        std::string out;
        EXPECT_EQ(run_command(args + " 2>&1 </dev/null", &out), std::stoi(row[1]))
            << args << ": " << out;
        for (std::size_t i = 2; i < row.size(); ++i) {
            const bool absent = row[i][0] == '!';
            const std::string part = expand(row[i].substr(absent ? 1 : 0), values);
            EXPECT_EQ(out.find(part) == std::string::npos, absent) << args << ": " << out;
        }
    }
}

}  // namespace nk::test
