#include "stored_answers.h"

#include <mutex>
#include <unordered_map>

#include <nk/log.h>

#include "daemon_state.h"
#include "device_id_answers.h"
#include "device_identity.h"

namespace {

std::unordered_map<std::string, std::string> s_ids;  // mac_key to device id
bool s_known = false;

}  // namespace

void remember_stored_ids(const std::vector<Device>& stored) {
    s_ids.clear();
    for (const Device& device : stored) {
        for (const macaddr& mac : device.local.macips.macs)
            s_ids.emplace(mac_key(mac), device.cloud.device_id);
    }
    s_known = true;
}

void forget_stored_ids() {
    s_ids.clear();
    s_known = false;
}

bool stored_ids_known() {
    return s_known;
}

void answer_from_stored_ids() {
    std::vector<DeviceIdRequest> waiting;
    {
        const std::lock_guard lock(g_devid_requests_mutex);
        waiting.swap(g_devid_requests);
    }
    std::vector<DeviceIdRequest> kept;
    for (const DeviceIdRequest& request : waiting) {
        const auto it = s_ids.find(mac_key(request.mac));
        if (it == s_ids.end() || !is_valid_device_id_request(request.mac, request.ip)) {
            kept.push_back(request);
            continue;
        }
        const std::string mac_text = request.mac.to_string(false);
        NK_LOG(nk::log::DEBUG, "mac={}, device_id={:s} (stored)", request.mac, it->second);
        send_device_id_response(mac_text.c_str(), it->second.c_str(), request.request_id);
    }
    if (kept.empty())
        return;
    const std::lock_guard lock(g_devid_requests_mutex);
    g_devid_requests.insert(g_devid_requests.begin(), kept.begin(), kept.end());
}
