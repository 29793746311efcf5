#include "device.h"

#include <algorithm>
#include <utility>

#include <nk/constants.h>
#include <nk/json.h>
#include <nk/log.h>
#include <nk/nkerrno.h>

#include "host_names.h"

const nk::path Device::base_key{"/devices"};

std::vector<Device> g_devices;

std::string mac_key(const macaddr& mac) {
    return mac.get_hash(48);
}

// ---------------------------------------------------------------------------------------------
// CloudData

bool CloudData::add_mac(const std::string& text) {
    if (text.empty())
        return false;
    const macaddr mac(text);
    if (!mac.is_valid()) {
        NK_LOG(nk::log::ERROR, "Invalid mac received from cloud {}", text);
        return false;
    }
    macs.emplace(mac_key(mac), mac);
    return true;
}

bool operator==(const CloudData& a, const CloudData& b) {
    return a.device_id == b.device_id && a.device_os == b.device_os &&
           a.device_os_version == b.device_os_version && a.device_type == b.device_type &&
           a.mac_vendor == b.mac_vendor && a.device_model == b.device_model && a.macs == b.macs &&
           a.apps == b.apps && a.box_detected_name == b.box_detected_name &&
           a.box_detected_name_history == b.box_detected_name_history &&
           a.device_detection_name == b.device_detection_name && a.display_name == b.display_name &&
           a.friendly_name == b.friendly_name && a.blocked == b.blocked &&
           a.profile_id == b.profile_id && a.onguest == b.onguest && a.scan_level == b.scan_level &&
           a.va_scan_level == b.va_scan_level && a.upnp_enabled == b.upnp_enabled &&
           a.box_device_id == b.box_device_id && a.onbox == b.onbox && a.macips == b.macips &&
           a.created == b.created;
}

// ---------------------------------------------------------------------------------------------
// Device

Device::Device(const std::string& local_id, const macaddr& mac, const nk::ip_set& ips,
               const std::string& hostname) {
    cloud.macs.emplace(mac_key(mac), mac);
    for (const address& ip : ips)
        local.macips.add_ip(mac, ip);
    local.device_id = local_id;
    cloud.box_detected_name = hostname.empty() ? get_hostname(mac) : hostname;
}

nk::path Device::device_key() const {
    return base_key / cloud.device_id;
}

nk::path Device::field_key(const std::string& field) const {
    return device_key() / field;
}

bool Device::lock_device_key() const {
    const nk::path key = device_key();
    if (nk::setMgmt::lockKey(key) == 0)
        return true;
    NK_LOG(nk::log::ERROR, "Failed to lock device key {}: {}", key, nk::errno_text(nkerrno));
    return false;
}

bool Device::unlock_device_key() {
    const nk::path key = device_key();
    const bool unlocked = nk::setMgmt::unlockKey(key) == 0;
    if (!unlocked)
        NK_LOG(nk::log::ERROR, "Failed to unlock device key {}: {}", key, nk::errno_text(nkerrno));
    run_external_events();
    return unlocked;
}

void Device::run_external_events() {
    if (external_events.empty())
        return;
    NK_LOG(nk::log::DEBUG, "device {}. Sending external events ...", cloud.device_id);
    // Taken out first: an action may change g_devices, which can move this very record.
    const std::vector<std::function<void()>> events = std::move(external_events);
    external_events.clear();
    for (const std::function<void()>& event : events)
        event();
}

json_t* Device::get_connect_device_params(const std::string& name) const {
    if (cloud.macs.empty())
        return nullptr;
    const std::string mac = cloud.macs.begin()->second.to_string(false);
    return json_pack("{s:s, s:s}", "box_detected_name", name.c_str(), "mac", mac.c_str());
}

// ---------------------------------------------------------------------------------------------
// The shared device table's record

namespace {

std::string history_to_text(const std::vector<std::string>& history) {
    const nk::json_ptr array(json_array());
    if (!array)
        return {};
    for (const std::string& name : history) {
        if (json_array_append_new(array.get(), json_string(name.c_str())) != 0)
            return {};
    }
    const nk::json_text text(json_dumps(array.get(), JSON_COMPACT));
    return text ? std::string(text.get()) : std::string();
}

// Leaves `history` as it was unless the text is a JSON array.
void history_from_text(const std::string& text, std::vector<std::string>& history) {
    const nk::json_ptr array(json_loads(text.c_str(), 0, nullptr));
    if (!json_is_array(array.get()))
        return;
    std::vector<std::string> names;
    std::size_t index = 0;
    json_t* value = nullptr;
    json_array_foreach(array.get(), index, value) {
        if (json_is_string(value))
            names.emplace_back(json_string_value(value));
    }
    history = std::move(names);
}

using RecordMacips = decltype(nk::devMgmt::Device::macips);

// Addresses sorted, so that an unchanged device gives an unchanged record.
RecordMacips macips_to_record(const nk::macips_t& macips) {
    RecordMacips out;
    for (const macaddr& mac : macips.macs) {
        std::vector<address>& ips = out[mac];
        const auto it = macips.ips.find(mac);
        if (it != macips.ips.end())
            ips.assign(it->second.begin(), it->second.end());
        std::sort(ips.begin(), ips.end());
    }
    return out;
}

nk::macips_t macips_from_record(const RecordMacips& record) {
    nk::macips_t out;
    for (const auto& [mac, ips] : record) {
        out.add_mac(mac);
        for (const address& ip : ips)
            out.add_ip(mac, ip);
    }
    return out;
}

}  // namespace

nk::devMgmt::Device Device::to_devmgmt_device() const {
    nk::devMgmt::Device r;
    r.device_id = cloud.device_id;
    r.local_id = local.device_id;
    r.profile_id = cloud.profile_id;
    r.display_name = cloud.display_name;
    r.friendly_name = cloud.friendly_name;
    r.device_type = cloud.device_type;
    r.device_os = cloud.device_os;
    r.device_os_version = cloud.device_os_version;
    r.device_model = cloud.device_model;
    r.mac_vendor = cloud.mac_vendor;
    r.box_device_id = cloud.box_device_id;
    r.box_detected_name = cloud.box_detected_name;
    r.box_detected_name_history = history_to_text(cloud.box_detected_name_history);
    r.apps.insert(cloud.apps.begin(), cloud.apps.end());
    r.created = cloud.created;
    r.blocked = cloud.blocked;
    r.upnp_enabled = cloud.upnp_enabled;
    r.onguest = cloud.onguest;
    r.scan_level = cloud.scan_level;
    r.va_scan_level = cloud.va_scan_level;
    r.onbox = local.onbox_info.onbox;
    r.macips = macips_to_record(local.macips);
    return r;
}

void Device::from_devmgmt_device(const nk::devMgmt::Device& r) {
    cloud.device_id = r.device_id;
    local.device_id = r.local_id;
    cloud.profile_id = r.profile_id;
    cloud.display_name = r.display_name;
    cloud.friendly_name = r.friendly_name;
    cloud.device_type = r.device_type;
    cloud.device_os = r.device_os;
    cloud.device_os_version = r.device_os_version;
    cloud.device_model = r.device_model;
    cloud.mac_vendor = r.mac_vendor;
    cloud.box_device_id = r.box_device_id;
    cloud.box_detected_name = r.box_detected_name;
    history_from_text(r.box_detected_name_history, cloud.box_detected_name_history);
    cloud.apps = std::unordered_map<std::string, int>(r.apps.begin(), r.apps.end());
    cloud.created = r.created;
    cloud.blocked = r.blocked;
    cloud.upnp_enabled = r.upnp_enabled;
    cloud.onguest = r.onguest;
    cloud.scan_level = r.scan_level;
    cloud.va_scan_level = r.va_scan_level;
    local.onbox_info.onbox = r.onbox;
    local.macips = macips_from_record(r.macips);
}

// ---------------------------------------------------------------------------------------------
// Registry

Device* find_device_by_dev_id(const std::string& id) {
    const auto it = std::find_if(g_devices.begin(), g_devices.end(),
                                 [&id](const Device& d) { return d.cloud.device_id == id; });
    return it != g_devices.end() ? &*it : nullptr;
}

Device* find_device_by_mac(const macaddr& mac) {
    const std::string key = mac_key(mac);
    const auto it = std::find_if(g_devices.begin(), g_devices.end(),
                                 [&key](const Device& d) { return d.cloud.macs.count(key) != 0; });
    return it != g_devices.end() ? &*it : nullptr;
}

Device* find_device_by_ip(const address& ip) {
    const auto has_ip = [&ip](const Device& d) {
        return std::any_of(d.local.macips.ips.begin(), d.local.macips.ips.end(),
                           [&ip](const auto& entry) { return entry.second.count(ip) != 0; });
    };
    const auto it = std::find_if(g_devices.begin(), g_devices.end(), has_ip);
    return it != g_devices.end() ? &*it : nullptr;
}

bool is_temporary(const std::string& id) {
    return id.size() >= nk::kTemporaryDeviceIdPrefix.size() &&
           id.compare(0, nk::kTemporaryDeviceIdPrefix.size(), nk::kTemporaryDeviceIdPrefix) == 0;
}
