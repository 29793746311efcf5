// The inventory rebuilt from the cloud's device list and reconciled with the stored devices.
#include <algorithm>
#include <cctype>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <nk/json.h>
#include <nk/log.h>
#include <nk/nkerrno.h>

#include "cloud_request.h"
#include "daemon_state.h"
#include "device.h"
#include "device_storage.h"
#include "device_sync.h"
#include "stored_answers.h"

namespace {

constexpr int kPageSize = 20;
// 5120 devices, far beyond any home network.
constexpr int kMaxPages = 256;

enum class PageOutcome { Failed, Done, Next };

bool append_names(json_t* array, const std::vector<std::string>& names) {
    for (const std::string& name : names) {
        if (json_array_append_new(array, json_string(name.c_str())) != 0)
            return false;
    }
    return true;
}

// Everything but the page number, which changes per request.
nk::json_ptr make_list_request() {
    const nk::json_ptr fields(json_array());
    const nk::json_ptr additional(json_array());
    if (!fields || !additional || !append_names(fields.get(), g_cloud_fields) ||
        !append_names(fields.get(), {"ip_list", "ip"}) ||
        !append_names(additional.get(), g_additional_cloud_fields))
        return nullptr;
    return nk::json_ptr(json_pack("{s:i, s:O, s:O}", "limit", kPageSize, "fields", fields.get(),
                                  "additional_fields", additional.get()));
}

std::string lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

void read_string(const json_t* object, const char* key, std::string& out) {
    if (const char* text = nk::json_string_member(object, key))
        out = text;
}

void read_int(const json_t* object, const char* key, int& out) {
    if (const json_t* value = json_object_get(object, key); json_is_integer(value))
        out = static_cast<int>(json_integer_value(value));
}

void read_macs(const json_t* array, CloudData& cloud) {
    std::size_t index = 0;
    const json_t* value = nullptr;
    json_array_foreach(array, index, value) {
        if (json_is_string(value))
            cloud.add_mac(lower(json_string_value(value)));
    }
}

// Only apps switched on ("state" 1) with a known enable value count.
void read_apps(const json_t* array, CloudData& cloud) {
    std::size_t index = 0;
    const json_t* app = nullptr;
    json_array_foreach(array, index, app) {
        const char* id = nk::json_string_member(app, "app_id");
        const json_t* state = json_object_get(app, "state");
        const std::optional<int> enable = cloud_int(json_object_get(app, "enable"));
        if (id && json_is_integer(state) && enable && json_integer_value(state) == 1)
            cloud.apps[id] = *enable;
    }
}

// The list gives the vulnerability-scan level as text: 0 never scan, 1 undecided, 2 scan.
void read_va_scan_level(const json_t* object, CloudData& cloud) {
    const char* level = nk::json_string_member(object, "va_scan_level");
    if (!level)
        return;
    const std::string text(level);
    cloud.va_scan_level = text == "do_not_scan" ? 0 : text == "unknown" ? 1 : 2;
}

void add_ips(const macaddr& mac, const json_t* array, nk::macips_t& macips) {
    std::size_t index = 0;
    const json_t* value = nullptr;
    json_array_foreach(array, index, value) {
        if (json_is_string(value))
            macips.add_ip(mac, address(json_string_value(value)));
    }
}

// "ip_list": {MAC: {family: [IP, ...]}}; a bare "ip" belongs to the first MAC.
void read_addresses(const json_t* object, CloudData& cloud) {
    json_t* ip_list = json_object_get(object, "ip_list");
    if (json_is_object(ip_list)) {
        const char* text = nullptr;
        json_t* families = nullptr;
        json_object_foreach(ip_list, text, families) {
            const macaddr mac(lower(text));
            cloud.macips.add_mac(mac);
            const char* family = nullptr;
            json_t* ips = nullptr;
            json_object_foreach(families, family, ips) {
                add_ips(mac, ips, cloud.macips);
            }
        }
        return;
    }
    const char* ip = nk::json_string_member(object, "ip");
    if (ip && !cloud.macs.empty())
        cloud.macips.add_ip(cloud.macs.begin()->second, address(ip));
}

void read_history(const json_t* array, std::vector<std::string>& history) {
    std::size_t index = 0;
    const json_t* value = nullptr;
    json_array_foreach(array, index, value) {
        if (json_is_string(value))
            history.emplace_back(json_string_value(value));
    }
}

Device device_from_list(const json_t* object) {
    Device device;
    CloudData& c = device.cloud;
    if (const json_t* created = json_object_get(object, "created"); json_is_integer(created))
        c.created = json_integer_value(created);
    read_string(object, "device_id", c.device_id);
    read_string(object, "device_os", c.device_os);
    read_string(object, "device_os_version", c.device_os_version);
    read_string(object, "device_type", c.device_type);
    read_string(object, "device_model", c.device_model);
    read_string(object, "profile_id", c.profile_id);
    read_string(object, "box_device_id", c.box_device_id);
    read_macs(json_object_get(object, "macs"), c);
    read_string(object, "mac_vendor", c.mac_vendor);
    read_apps(json_object_get(object, "apps"), c);
    read_string(object, "box_detected_name", c.box_detected_name);
    read_string(object, "device_detection_name", c.device_detection_name);
    read_string(object, "friendly_name", c.friendly_name);
    read_string(object, "display_name", c.display_name);
    read_int(object, "scan_level", c.scan_level);
    read_va_scan_level(object, c);
    if (const std::optional<int> blocked =
            cloud_int(nk::json_object_get_recursive(object, {"traffic", "blocked"})))
        c.blocked = *blocked;
    read_int(object, "onbox", c.onbox);
    read_addresses(object, c);
    read_history(json_object_get(object, "box_detected_name_history"), c.box_detected_name_history);
    return device;
}

void append_listed_devices(const json_t* devices) {
    std::size_t index = 0;
    const json_t* object = nullptr;
    json_array_foreach(devices, index, object) {
        Device device = device_from_list(object);
        const std::string mac0 = device.cloud.macs.empty()
                                     ? std::string()
                                     : fmt::format("{}", device.cloud.macs.begin()->second);
        NK_LOG(nk::log::DEBUG, "list_devices: device_id={:s} mac0={:s} blocked={:d}",
               device.cloud.device_id, mac0, device.cloud.blocked);
        g_devices.push_back(std::move(device));
    }
}

// The cloud reports an empty list as an error; any other error text is taken for one too.
std::optional<PageOutcome> check_error(const json_t* answer) {
    const char* err_data = json_string_value(
        nk::json_object_get_recursive(answer, {"error", "data", "data", "err_data"}));
    if (!err_data)
        return std::nullopt;
    if (lower(err_data).find("empty list provided") == std::string::npos) {
        NK_LOG(nk::log::WARN, "list_devices: empty device list");
        return PageOutcome::Done;
    }
    return std::nullopt;
}

PageOutcome read_page(const json_t* answer, int page) {
    if (const std::optional<PageOutcome> outcome = check_error(answer))
        return *outcome;
    const json_t* result = json_object_get(answer, "result");
    if (!result) {
        NK_LOG(nk::log::WARN, "list_devices failed");
        return PageOutcome::Failed;
    }
    const json_t* returned = json_object_get(result, "page");
    if (!json_is_integer(returned)) {
        NK_LOG(nk::log::ERROR, "Failed to extract field page");
        return PageOutcome::Failed;
    }
    if (json_integer_value(returned) != page) {
        NK_LOG(nk::log::ERROR, "Page {:d} was expected, but page {:d} was returned!", page,
               json_integer_value(returned));
        return PageOutcome::Failed;
    }
    NK_LOG(nk::log::DEBUG, "list page {:d}", page);
    const json_t* count = json_object_get(result, "count");
    if (!json_is_integer(count)) {
        NK_LOG(nk::log::ERROR, "Failed to extract field count");
        return PageOutcome::Failed;
    }
    const json_t* devices = json_object_get(result, "devices");
    if (!json_is_array(devices)) {
        NK_LOG(nk::log::ERROR, "Failed to extract devices");
        return PageOutcome::Failed;
    }
    append_listed_devices(devices);
    if (json_array_size(devices) < kPageSize)
        return PageOutcome::Done;
    const std::int64_t listed = static_cast<std::int64_t>(page + 1) * kPageSize;
    if (listed == json_integer_value(count))
        return PageOutcome::Done;
    // A count that full pages never meet would otherwise page for ever.
    if (page + 1 >= kMaxPages) {
        NK_LOG(nk::log::WARN, "list_devices: stopping after {:d} full pages, count {:d}", kMaxPages,
               json_integer_value(count));
        return PageOutcome::Done;
    }
    return PageOutcome::Next;
}

const Device* find_stored(const std::vector<Device>& stored, const std::string& id) {
    const auto it = std::find_if(stored.begin(), stored.end(),
                                 [&id](const Device& s) { return s.cloud.device_id == id; });
    return it != stored.end() ? &*it : nullptr;
}

// The stored MAC set stays; addresses stay only for MACs the cloud still lists, so that an
// address is not found under a device the cloud has taken the MAC from. A device the cloud
// lists no MAC for (the BOX itself) has taken nothing, and keeps them all.
nk::macips_t merge_local_macips(const nk::macips_t& stored, const CloudData& cloud) {
    nk::macips_t merged;
    for (const macaddr& mac : stored.macs) {
        merged.add_mac(mac);
        const auto ips = stored.ips.find(mac);
        if (ips == stored.ips.end() || (!cloud.macs.empty() && cloud.macs.count(mac_key(mac)) == 0))
            continue;
        for (const address& ip : ips->second)
            merged.add_ip(mac, ip);
    }
    return merged;
}

void carry_local_state(const Device& stored, Device& device) {
    device.local.device_id = stored.local.device_id;
    device.local.onbox_info = stored.local.onbox_info;
    device.local.avahi_info = stored.local.avahi_info;
    device.local.upnp_info = stored.local.upnp_info;
    device.local.netbios_info = stored.local.netbios_info;
    device.local.macips = merge_local_macips(stored.local.macips, device.cloud);
}

// Onbox starts on only for a device this BOX manages and the cloud has marked onbox.
void set_initial_onbox(Device& device) {
    OnboxInfo& info = device.local.onbox_info;
    if (device.cloud.onbox != 0 && device.cloud.box_device_id == g_device_id) {
        info.onbox = 1;
        info.to_send = device.cloud.macips != device.local.macips;
    } else {
        info.onbox = 0;
        info.to_send = false;
    }
}

void sync_listed_device(Device& device, const std::vector<Device>& stored, MarkerBatch& markers) {
    if (!device.lock_device_key())
        return;
    if (const Device* s = find_stored(stored, device.cloud.device_id)) {
        carry_local_state(*s, device);
        if (device.cloud != s->cloud || device.local.device_id != s->local.device_id ||
            device.local.macips != s->local.macips)
            store_device(device, true, &markers);
    } else {
        device.local.device_id = device.cloud.device_id;
        store_device(device, true, &markers);
    }
    set_initial_onbox(device);
    // Costs nothing when the record and the marker are stored as they are already.
    store_device(device, true, &markers);
    NK_LOG(nk::log::INFO, "Initial local onbox_info for device_id {:s} is: {}",
           device.cloud.device_id, device.local.onbox_info);
    device.unlock_device_key();
}

void forget_stored_device(const Device& stored) {
    Device device = stored;
    if (!device.lock_device_key())
        return;
    remove_device_from_storage(device);
    // A device read back from storage has no cloud MACs, so its local ones count too.
    std::vector<macaddr> macs(device.local.macips.macs.begin(), device.local.macips.macs.end());
    for (const auto& entry : device.cloud.macs)
        macs.push_back(entry.second);
    nk::remove_macs_from_cache(macs, g_user_agent_cache, g_user_agent_cache_mutex);
    nk::remove_macs_from_cache(macs, g_fingerprint_cache, g_fingerprint_cache_mutex);
    device.unlock_device_key();
}

bool refresh_due_device(std::size_t index) {
    Device& device = g_devices[index];
    if (!device.lock_device_key())
        return false;
    const bool refreshed = device.update_device_fields_from_cloud(g_cloud_fields, true);
    if (refreshed)
        device.info_sync_pending = 0;
    device.unlock_device_key();
    return refreshed;
}

}  // namespace

bool load_devices_from_cloud() {
    g_devices.clear();
    NK_LOG(nk::log::INFO, "loading devices from cloud [list_devices_v2]");
    const nk::json_ptr body = make_list_request();
    if (!body)
        return false;
    for (int page = 0;; ++page) {
        if (json_object_set_new(body.get(), "page", json_integer(page)) != 0) {
            NK_LOG(nk::log::DEBUG, "Failed to set field page to {:d}", page);
            return false;
        }
        nk::json_ptr answer;
        if (!cloud_request(kCloudListDevices, body.get(), &answer))
            return false;
        const PageOutcome outcome = read_page(answer.get(), page);
        if (outcome != PageOutcome::Next)
            return outcome == PageOutcome::Done;
    }
}

void sync_devices_to_storage(const std::vector<Device>& stored) {
    MarkerBatch markers;
    // By index: unlocking runs deferred events, which may grow the inventory.
    for (std::size_t i = 0; i < g_devices.size(); ++i)
        sync_listed_device(g_devices[i], stored, markers);
    markers.flush();
    for (const Device& s : stored) {
        if (find_device_by_dev_id(s.cloud.device_id) == nullptr)
            forget_stored_device(s);
    }
}

bool sync_device_info() {
    bool settled = true;
    for (std::size_t i = 0; i < g_devices.size(); ++i) {
        const Device& device = g_devices[i];
        if (!device.info_sync_pending)
            continue;
        if (g_now < device.info_sync_pending_since + g_sync_retry_interval) {
            settled = false;
            continue;
        }
        // A failed refresh keeps the device waiting, so the timer retries it.
        if (!refresh_due_device(i))
            settled = false;
    }
    return settled;
}

void reset_devices_loaded() {
    forget_stored_ids();
    std::lock_guard lock(g_devices_loaded_mutex);
    g_cloud_devices_loaded = false;
    g_local_devices_loaded = false;
}
