// JSON helpers over jansson.
#pragma once

#include <jansson.h>

#include <initializer_list>
#include <memory>
#include <string>
#include <string_view>

namespace nk {

struct PtrDeleter {
    void operator()(json_t* json) const { json_decref(json); }
    void operator()(char* text) const { free(text); }  // NOLINT: json_dumps's text
};

using json_ptr = std::unique_ptr<json_t, PtrDeleter>;
using json_text = std::unique_ptr<char, PtrDeleter>;

// The value at a key path, or null when a piece is missing or not an object.
json_t* json_object_get_recursive(const json_t* json, std::initializer_list<const char*> keys);

// A string member's text, or null when absent or not a string.
const char* json_string_member(const json_t* object, const char* key);

// Compact text of a value (empty on failure).
std::string json_dump_compact(const json_t* json);

// 0 when a cloud answer has "result" and no "error"; else error.code (or -1).
int extract_response_status(const json_t* answer);
// error.data.code of a cloud answer, or -1.
int extract_error_data_code(const json_t* answer);

}  // namespace nk
