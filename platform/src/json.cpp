#include "nk/json.h"

#include <limits>

namespace nk {

namespace {

// An integer member that fits an int, or -1.
int int_member_or(const json_t* object, const char* key, int fallback) {
    const json_t* value = json_object_get(object, key);
    if (!json_is_integer(value))
        return fallback;
    const json_int_t n = json_integer_value(value);
    if (n < std::numeric_limits<int>::min() || n > std::numeric_limits<int>::max()) {
        return fallback;
    }
    return static_cast<int>(n);
}

}  // namespace

json_t* json_object_get_recursive(const json_t* json, std::initializer_list<const char*> keys) {
    // jansson's getters take non-const pointers; nothing here modifies the value.
    json_t* current = const_cast<json_t*>(json);  // NOLINT
    for (const char* key : keys) {
        if (key == nullptr || !json_is_object(current))
            return nullptr;
        current = json_object_get(current, key);
    }
    return current;
}

const char* json_string_member(const json_t* object, const char* key) {
    if (!json_is_object(object) || key == nullptr)
        return nullptr;
    const json_t* value = json_object_get(object, key);
    return json_is_string(value) ? json_string_value(value) : nullptr;
}

std::string json_dump_compact(const json_t* json) {
    if (json == nullptr)
        return {};
    json_text text(json_dumps(json, JSON_COMPACT | JSON_ENCODE_ANY));
    return text ? std::string(text.get()) : std::string();
}

int extract_response_status(const json_t* answer) {
    if (!json_is_object(answer))
        return -1;
    const json_t* error = json_object_get(answer, "error");
    if (error == nullptr)
        return json_object_get(answer, "result") != nullptr ? 0 : -1;
    if (!json_is_object(error))
        return -1;
    // An error answer must never read as success, whatever code it carries.
    const int code = int_member_or(error, "code", -1);
    return code == 0 ? -1 : code;
}

int extract_error_data_code(const json_t* answer) {
    const json_t* data = json_object_get_recursive(answer, {"error", "data"});
    if (!json_is_object(data))
        return -1;
    return int_member_or(data, "code", -1);
}

}  // namespace nk
