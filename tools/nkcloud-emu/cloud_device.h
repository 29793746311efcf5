// A device as the cloud keeps it: indexed columns plus one JSON document of its fields.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "nk/json.h"

namespace nkemu {

struct CloudDevice {
    std::string id;
    std::string mac;  // lower-case colon form; empty for the BOX itself
    std::int64_t created = 0;
    bool is_box = false;
    nk::json_ptr fields;  // every cloud field, "device_id", "created" and "macs" included
};

// How a field is rendered: the list answer and the device-info answer disagree on
// "va_scan_level" (text in the list, a number in the device info).
enum class FieldForm { List, Info };

// A random UUID version 4 in its 36-character text form; empty when no randomness was had.
std::string new_device_id();

// A device with the cloud's defaults, first seen with `mac` (empty for the BOX) at `created`.
CloudDevice make_device(const std::string& id, const std::string& mac, std::int64_t created);

// A detected host name reported by a BOX. Empty names and "*" are ignored; the previous name
// moves into "box_detected_name_history". True when the device changed.
bool set_detected_name(CloudDevice& device, const std::string& name);

// A user-facing string field ("friendly_name", ...). Returns the names of the fields that
// changed, "display_name" included when it follows.
std::vector<std::string> set_name_field(CloudDevice& device, const char* field,
                                        const std::string& value);

// Sets a field (the reference is stolen), keeping "display_name" in step with the names.
void set_field(CloudDevice& device, const char* field, json_t* value);

// {"device_id": ..., and each of `names` the device has}.
nk::json_ptr select_fields(const CloudDevice& device, const std::vector<std::string>& names,
                           FieldForm form);

}  // namespace nkemu
