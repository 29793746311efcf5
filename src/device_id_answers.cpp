#include "device_id_answers.h"

#include <mutex>
#include <string>
#include <unordered_map>

#include <nk/log.h>

#include "globals.h"
#include "network_info.h"
#include "subprocess_messages.h"
#include "utils.h"

namespace {

std::mutex g_waiting_mutex;
bool g_waiting = false;
// mac_key to the permanent id of the device that carries the MAC.
std::unordered_map<std::string, std::string> g_known_ids;

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

std::optional<std::string> known_id(const macaddr& mac) {
    const std::lock_guard lock(g_waiting_mutex);
    if (!g_waiting)
        return std::nullopt;
    const auto it = g_known_ids.find(mac_key(mac));
    if (it == g_known_ids.end())
        return std::nullopt;
    return it->second;
}

bool cloud_waits() {
    const std::lock_guard lock(g_waiting_mutex);
    return g_waiting;
}

}  // namespace

bool is_valid_device_id_request(const macaddr& mac, const address& ip) {
    return mac.is_valid() && !is_on_box(mac.to_string(false)) && is_in_subnet(ip.to_string());
}

CloudWait::CloudWait() {
    // Before the first leases every request waits for them, whoever holds the loop.
    if (!leases_received())
        return;
    std::unordered_map<std::string, std::string> ids = permanent_ids();
    const std::lock_guard lock(g_waiting_mutex);
    g_known_ids.swap(ids);
    g_waiting = true;
    published_ = true;
}

CloudWait::~CloudWait() {
    if (!published_)
        return;
    std::unordered_map<std::string, std::string> ids;
    {
        const std::lock_guard lock(g_waiting_mutex);
        g_waiting = false;
        g_known_ids.swap(ids);
    }
}

bool answer_while_cloud_waits(const DeviceIdRequest& request) {
    if (!cloud_waits())
        return false;
    const macaddr mac = get_real_mac(request.mac, request.ip);
    const std::string mac_text = mac.to_string(false);
    if (!is_valid_device_id_request(mac, request.ip)) {
        NK_LOG(nk::log::WARN, "Received invalid device_id request: mac={}, ip={}", mac, request.ip);
        send_device_id_response(mac_text.c_str(), "", request.request_id);
        return true;
    }
    const std::optional<std::string> device_id = known_id(mac);
    if (!device_id)
        return false;  // a temporary id and its registration are the loop's business
    NK_LOG(nk::log::DEBUG, "mac={}, device_id={:s}", mac, *device_id);
    send_device_id_response(mac_text.c_str(), device_id->c_str(), request.request_id);
    return true;
}
