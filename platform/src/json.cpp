#include "nk/json.h"

namespace nk {

std::string json_dump_compact(const json_t* json) {
    if (json == nullptr) return {};
    json_text text(json_dumps(json, JSON_COMPACT | JSON_ENCODE_ANY));
    return text ? std::string(text.get()) : std::string();
}

}  // namespace nk
