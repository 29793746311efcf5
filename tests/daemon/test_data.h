// Table rows kept as data: one JSON object a line in tests/daemon/data/NAME.jsonl.
#pragma once

#include <cstdint>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

#include <nk/json.h>

namespace nk::test {

inline std::string data_dir() {
    return NK_DAEMON_DATA_DIR;
}

inline std::vector<nk::json_ptr> rows(const std::string& name) {
    std::ifstream in(data_dir() + "/" + name + ".jsonl");
    if (!in)
        throw std::runtime_error("no data file " + name);
    std::vector<nk::json_ptr> out;
    for (std::string line; std::getline(in, line);) {
        if (line.empty())
            continue;
        json_error_t error;
        out.emplace_back(json_loads(line.c_str(), JSON_ALLOW_NUL, &error));
        if (!out.back())
            throw std::runtime_error(name + ": " + error.text);
    }
    return out;
}

// Absent members read as empty, false or `fallback`, so rows name only what matters to them.
inline std::string str(const json_t* row, const char* key) {
    const json_t* v = json_object_get(row, key);
    return json_is_string(v) ? std::string(json_string_value(v), json_string_length(v)) : "";
}
inline bool flag(const json_t* row, const char* key) {
    return json_is_true(json_object_get(row, key));
}
inline long long num(const json_t* row, const char* key, long long fallback = 0) {
    const json_t* v = json_object_get(row, key);
    return json_is_integer(v) ? json_integer_value(v) : fallback;
}
inline std::vector<std::string> strs(const json_t* row, const char* key) {
    std::vector<std::string> out;
    std::size_t i = 0;
    const json_t* v = nullptr;
    json_array_foreach(json_object_get(row, key), i, v) out.emplace_back(json_string_value(v));
    return out;
}

inline std::vector<long long> nums(const json_t* row, const char* key) {
    std::vector<long long> out;
    std::size_t i = 0;
    const json_t* v = nullptr;
    json_array_foreach(json_object_get(row, key), i, v) out.push_back(json_integer_value(v));
    return out;
}

inline std::vector<std::uint8_t> from_hex(const std::string& hex) {
    std::vector<std::uint8_t> out;
    for (std::size_t i = 0; i + 1 < hex.size(); i += 2)
        out.push_back(static_cast<std::uint8_t>(std::stoi(hex.substr(i, 2), nullptr, 16)));
    return out;
}

}  // namespace nk::test
