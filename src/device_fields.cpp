// One device's fields refreshed from the cloud's device info.
#include <algorithm>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <fmt/ranges.h>
#include <nk/json.h>
#include <nk/log.h>

#include "cloud_request.h"
#include "daemon_state.h"
#include "device.h"
#include "device_storage.h"

namespace {

bool contains(const std::vector<std::string>& names, const std::string& name) {
    return std::find(names.begin(), names.end(), name) != names.end();
}

bool ends_with(const std::string& text, const std::string& suffix) {
    return text.size() >= suffix.size() &&
           text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

// The cloud derives display_name from the other names, so it may follow any of them.
std::vector<std::string> with_display_name(const std::vector<std::string>& fields) {
    std::vector<std::string> names = fields;
    const bool names_changed = std::any_of(fields.begin(), fields.end(), [](const auto& f) {
        return ends_with(f, "_name") || f == "device_model";
    });
    if (names_changed && !contains(fields, "display_name")) {
        names.emplace_back("display_name");
        NK_LOG(nk::log::INFO, "*_name field changed, requesting new display_name");
    }
    return names;
}

json_t* name_array(const std::vector<std::string>& names) {
    json_t* array = json_array();
    for (const std::string& name : names) {
        if (json_array_append_new(array, json_string(name.c_str())) != 0) {
            json_decref(array);
            return nullptr;
        }
    }
    return array;
}

nk::json_ptr make_info_request(const std::string& device_id, const std::vector<std::string>& names,
                               bool additional) {
    nk::json_ptr body(json_pack("{s:{s:s}, s:o}", "connect_destination", "device_id",
                                device_id.c_str(), "fields", name_array(names)));
    if (body && additional &&
        json_object_set_new(body.get(), "additional_fields",
                            name_array(g_additional_cloud_fields)) != 0)
        return nullptr;
    return body;
}

// Copies the requested fields of a device-info answer into a device, noting any change.
class FieldUpdate {
public:
    FieldUpdate(Device& device, const json_t* result, const std::vector<std::string>& names)
        : device_(device), result_(result), names_(names) {}

    bool changed() const { return changed_; }

    void created() {
        const json_t* value = json_object_get(result_, "created");
        if (requested("created") && json_is_integer(value))
            assign(device_.cloud.created, static_cast<std::int64_t>(json_integer_value(value)));
    }

    // An absent string is an empty one.
    void text(const char* field, std::string& member) {
        if (!requested(field))
            return;
        const char* value = nk::json_string_member(result_, field);
        assign(member, std::string(value ? value : ""));
    }

    void number(const char* field, int& member, bool log_missing) {
        if (!requested(field))
            return;
        const json_t* value = json_object_get(result_, field);
        if (json_is_integer(value)) {
            assign(member, static_cast<int>(json_integer_value(value)));
        } else if (log_missing) {
            NK_LOG(nk::log::ERROR, "{:s} missing in get_device_info result for {:s}\n", field,
                   device_.cloud.device_id);
        }
    }

    // New MACs are stored by the device itself.
    void macs() {
        json_t* value = json_object_get(result_, "macs");
        if (requested("macs") && json_is_array(value))
            device_.update_macs_from_cloud(value);
    }

    void blocked() {
        if (!requested("traffic"))
            return;
        const json_t* traffic = json_object_get(result_, "traffic");
        if (!traffic) {
            NK_LOG(nk::log::ERROR, "traffic missing in get_device_info result for {:s}",
                   device_.cloud.device_id);
            return;
        }
        if (const std::optional<int> value = cloud_int(json_object_get(traffic, "blocked")))
            assign(device_.cloud.blocked, *value);
    }

    void apps() {
        if (!requested("apps"))
            return;
        std::size_t index = 0;
        const json_t* app = nullptr;
        json_array_foreach(json_object_get(result_, "apps"), index, app) {
            const char* id = nk::json_string_member(app, "app_id");
            const std::optional<int> enable = cloud_int(json_object_get(app, "enable"));
            if (id && json_object_get(app, "state") && enable)
                set_app(id, *enable);
        }
    }

    // Another BOX's onbox value is taken; for this BOX's own devices the local value wins.
    void onbox() {
        if (!requested("onbox"))
            return;
        const std::optional<int> value = cloud_int(json_object_get(result_, "onbox"));
        const int onbox = value.value_or(0);
        if (onbox == device_.local.onbox_info.onbox || device_.cloud.box_device_id == g_device_id)
            return;
        NK_LOG(nk::log::INFO, "Updating onbox to {:d}, set by BOX {:s}", onbox,
               device_.cloud.box_device_id);
        device_.cloud.onbox = onbox;
        device_.local.onbox_info.onbox = onbox;
        changed_ = true;
    }

    void history() {
        const json_t* array = json_object_get(result_, "box_detected_name_history");
        if (!json_is_array(array))
            return;
        std::vector<std::string> names;
        std::size_t index = 0;
        const json_t* value = nullptr;
        json_array_foreach(array, index, value) {
            if (json_is_string(value))
                names.emplace_back(json_string_value(value));
        }
        assign(device_.cloud.box_detected_name_history, std::move(names));
    }

private:
    bool requested(const char* field) const { return contains(names_, field); }

    void set_app(const std::string& id, int enable) {
        const auto [it, inserted] = device_.cloud.apps.emplace(id, enable);
        if (inserted)
            changed_ = true;
        else
            assign(it->second, enable);
    }

    template <typename T>
    void assign(T& member, T value) {
        if (member == value)
            return;
        member = std::move(value);
        changed_ = true;
    }

    Device& device_;
    const json_t* result_;
    const std::vector<std::string>& names_;
    bool changed_ = false;
};

bool apply_device_info(Device& device, const json_t* result, const std::vector<std::string>& names,
                       bool additional) {
    FieldUpdate update(device, result, names);
    CloudData& c = device.cloud;
    update.created();
    update.text("device_os", c.device_os);
    update.text("device_os_version", c.device_os_version);
    update.text("device_type", c.device_type);
    update.text("device_model", c.device_model);
    update.text("box_detected_name", c.box_detected_name);
    update.text("friendly_name", c.friendly_name);
    update.text("device_detection_name", c.device_detection_name);
    update.text("display_name", c.display_name);
    update.text("profile_id", c.profile_id);
    update.text("box_device_id", c.box_device_id);
    update.number("scan_level", c.scan_level, true);
    update.number("upnp_enabled", c.upnp_enabled, true);
    update.number("va_scan_level", c.va_scan_level, false);
    update.macs();
    update.blocked();
    update.apps();
    update.onbox();
    update.text("mac_vendor", c.mac_vendor);
    if (additional)
        update.history();
    return update.changed();
}

}  // namespace

bool Device::update_device_fields_from_cloud(const std::vector<std::string>& fields,
                                             bool additional) {
    NK_LOG(nk::log::INFO, "getting device info from cloud for fields {}, additional_info={}",
           fields, additional);
    const std::vector<std::string> names = with_display_name(fields);
    const nk::json_ptr body = make_info_request(cloud.device_id, names, additional);
    if (!body)
        return false;
    nk::json_ptr answer;
    if (!cloud_request(kCloudGetDeviceInfo, body.get(), &answer)) {
        NK_LOG(nk::log::ERROR, "get_device_info failed");
        return false;
    }
    const json_t* result = json_object_get(answer.get(), "result");
    if (!json_is_object(result))
        return false;
    if (apply_device_info(*this, result, names, additional))
        write_device_to_storage(*this, true);
    return true;
}
