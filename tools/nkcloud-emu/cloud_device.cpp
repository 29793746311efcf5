#include "cloud_device.h"

#include <sys/random.h>

#include <array>
#include <cstring>

#include <fmt/format.h>

namespace nkemu {

namespace {

const char* string_field(const CloudDevice& device, const char* field) {
    const char* text = nk::json_string_member(device.fields.get(), field);
    return text ? text : "";
}

// What the apps show for a device: the user's name first, then what was detected.
std::string derive_display_name(const CloudDevice& device) {
    for (const char* field :
         {"friendly_name", "box_detected_name", "device_detection_name", "device_model"}) {
        const char* text = string_field(device, field);
        if (*text != '\0')
            return text;
    }
    return device.mac;
}

// True when "display_name" changed.
bool refresh_display_name(CloudDevice& device) {
    const std::string name = derive_display_name(device);
    if (name == string_field(device, "display_name"))
        return false;
    json_object_set_new(device.fields.get(), "display_name", json_string(name.c_str()));
    return true;
}

bool array_has_string(const json_t* array, const std::string& text) {
    size_t index = 0;
    const json_t* item = nullptr;
    json_array_foreach(array, index, item) {
        if (json_is_string(item) && text == json_string_value(item))
            return true;
    }
    return false;
}

// The numeric form of the vulnerability-scan level: 0 never scan, 1 not decided, 2 scan.
json_t* numeric_va_scan_level(const json_t* text) {
    const char* level = json_string_value(text);
    if (!level)
        return json_integer(1);
    if (std::strcmp(level, "do_not_scan") == 0)
        return json_integer(0);
    return json_integer(std::strcmp(level, "unknown") == 0 ? 1 : 2);
}

}  // namespace

std::string new_device_id() {
    std::array<unsigned char, 16> b{};
    if (::getrandom(b.data(), b.size(), 0) != static_cast<ssize_t>(b.size()))
        return {};
    b[6] = static_cast<unsigned char>((b[6] & 0x0f) | 0x40);  // version 4
    b[8] = static_cast<unsigned char>((b[8] & 0x3f) | 0x80);  // RFC 4122 variant
    return fmt::format(
        "{:02x}{:02x}{:02x}{:02x}-{:02x}{:02x}-{:02x}{:02x}-{:02x}{:02x}-"
        "{:02x}{:02x}{:02x}{:02x}{:02x}{:02x}",
        b[0], b[1], b[2], b[3], b[4], b[5], b[6], b[7], b[8], b[9], b[10], b[11], b[12], b[13],
        b[14], b[15]);
}

CloudDevice make_device(const std::string& id, const std::string& mac, std::int64_t created) {
    CloudDevice device;
    device.id = id;
    device.mac = mac;
    device.created = created;
    device.is_box = mac.empty();
    nk::json_ptr macs(json_array());
    if (!mac.empty())
        json_array_append_new(macs.get(), json_string(mac.c_str()));
    device.fields.reset(json_pack(
        "{s:s, s:I, s:O, s:s, s:s, s:s, s:s, s:s, s:s, s:[], s:s, s:[], s:s, s:s, s:{s:b}, s:i, "
        "s:s, s:i, s:s, s:i, s:i}",
        "device_id", id.c_str(), "created", static_cast<json_int_t>(created), "macs", macs.get(),
        "mac_vendor", "", "device_os", "", "device_os_version", "", "device_type", "",
        "device_model", "", "profile_id", "", "apps", "box_detected_name", "",
        "box_detected_name_history", "device_detection_name", "", "friendly_name", "", "traffic",
        "blocked", 0, "scan_level", 2, "va_scan_level", "unknown", "upnp_enabled", 0,
        "box_device_id", "", "onbox", 0, "network", 0));
    if (device.fields)
        refresh_display_name(device);
    return device;
}

bool set_detected_name(CloudDevice& device, const std::string& name) {
    const std::string old = string_field(device, "box_detected_name");
    if (name.empty() || name == "*" || name == old)
        return false;
    json_t* history = json_object_get(device.fields.get(), "box_detected_name_history");
    if (!json_is_array(history)) {
        history = json_array();
        json_object_set_new(device.fields.get(), "box_detected_name_history", history);
    }
    if (!old.empty() && !array_has_string(history, old))
        json_array_append_new(history, json_string(old.c_str()));
    set_field(device, "box_detected_name", json_string(name.c_str()));
    return true;
}

std::vector<std::string> set_name_field(CloudDevice& device, const char* field,
                                        const std::string& value) {
    if (value == string_field(device, field))
        return {};
    json_object_set_new(device.fields.get(), field, json_string(value.c_str()));
    std::vector<std::string> changed{field};
    if (refresh_display_name(device))
        changed.emplace_back("display_name");
    return changed;
}

void set_field(CloudDevice& device, const char* field, json_t* value) {
    json_object_set_new(device.fields.get(), field, value);
    refresh_display_name(device);
}

nk::json_ptr select_fields(const CloudDevice& device, const std::vector<std::string>& names,
                           FieldForm form) {
    nk::json_ptr out(json_pack("{s:s}", "device_id", device.id.c_str()));
    for (const std::string& name : names) {
        json_t* value = json_object_get(device.fields.get(), name.c_str());
        if (!value)
            continue;
        if (form == FieldForm::Info && name == "va_scan_level") {
            json_object_set_new(out.get(), name.c_str(), numeric_va_scan_level(value));
        } else {
            json_object_set(out.get(), name.c_str(), value);
        }
    }
    return out;
}

}  // namespace nkemu
