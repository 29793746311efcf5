#include "device_id_answers.h"

#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>

#include <nk/log.h>

#include "globals.h"
#include "network_info.h"
#include "utils.h"

namespace {

std::mutex g_published_mutex;
bool g_open = false;
// mac_key to the permanent id of the device that carries the MAC.
std::unordered_map<std::string, std::string> g_known_ids;

// Main loop only.
bool g_loop_open = false;
std::size_t g_published_signature = 0;

// Changes with any device id or cloud MAC of the inventory; cheaper than the map itself.
std::size_t inventory_signature() {
    const std::hash<std::string> hash;
    std::size_t signature = g_devices.size();
    for (const Device& device : g_devices) {
        signature = signature * 1000003 ^ hash(device.cloud.device_id);
        for (const auto& entry : device.cloud.macs)
            signature = signature * 1000003 ^ hash(entry.first);
    }
    return signature;
}

// The first device listing a MAC wins, as in find_device_by_mac.
std::unordered_map<std::string, std::string> permanent_ids() {
    std::unordered_map<std::string, std::string> ids;
    for (const Device& device : g_devices) {
        const std::string& id = device.cloud.device_id;
        if (id.empty() || is_temporary(id))
            continue;
        for (const auto& entry : device.cloud.macs)
            ids.emplace(entry.first, id);
    }
    return ids;
}

void publish(std::unordered_map<std::string, std::string> ids, bool open) {
    const std::lock_guard lock(g_published_mutex);
    g_known_ids.swap(ids);
    g_open = open;
}  // the old map is freed outside the lock

bool published_open() {
    const std::lock_guard lock(g_published_mutex);
    return g_open;
}

std::optional<std::string> published_id(const macaddr& mac) {
    const std::lock_guard lock(g_published_mutex);
    if (!g_open)
        return std::nullopt;
    const auto it = g_known_ids.find(mac_key(mac));
    if (it == g_known_ids.end())
        return std::nullopt;
    return it->second;
}

}  // namespace

bool is_valid_device_id_request(const macaddr& mac, const address& ip) {
    return mac.is_valid() && !is_on_box(mac.to_string(false)) && is_in_subnet(ip.to_string());
}

void set_device_id_answers(bool open) {
    if (!open) {
        if (g_loop_open)
            publish({}, false);
        g_loop_open = false;
        return;
    }
    const bool was_open = g_loop_open;
    g_loop_open = true;
    if (!was_open)
        g_published_signature = inventory_signature() + 1;  // publish whatever it is
    refresh_device_id_answers();
}

void refresh_device_id_answers() {
    if (!g_loop_open)
        return;
    const std::size_t signature = inventory_signature();
    if (signature == g_published_signature)
        return;
    publish(permanent_ids(), true);
    g_published_signature = signature;
}

bool answer_from_published_ids(const DeviceIdRequest& request) {
    if (!published_open())
        return false;
    const macaddr mac = get_real_mac(request.mac, request.ip);
    const std::string mac_text = mac.to_string(false);
    if (!is_valid_device_id_request(mac, request.ip)) {
        NK_LOG(nk::log::WARN, "Received invalid device_id request: mac={}, ip={}", mac, request.ip);
        send_device_id_response(mac_text.c_str(), "", request.request_id);
        return true;
    }
    const std::optional<std::string> device_id = published_id(mac);
    if (!device_id)
        return false;  // a temporary id and its registration are the loop's business
    NK_LOG(nk::log::DEBUG, "mac={}, device_id={:s}", mac, *device_id);
    send_device_id_response(mac_text.c_str(), device_id->c_str(), request.request_id);
    return true;
}
