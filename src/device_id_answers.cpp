#include "device_id_answers.h"

#include <mutex>
#include <string>
#include <vector>

#include <nk/log.h>

#include "daemon_state.h"
#include "device_identity.h"
#include "network_info.h"
#include "pending_devices.h"

bool is_valid_device_id_request(const macaddr& mac, const address& ip) {
    return mac.is_valid() && !is_on_box(mac.to_string(false)) && is_in_subnet(ip.to_string());
}

namespace {

// The whole queue, leaving it empty: the bus thread never waits for what the answers do.
std::vector<DeviceIdRequest> take_requests() {
    std::vector<DeviceIdRequest> batch;
    const std::lock_guard lock(g_devid_requests_mutex);
    batch.swap(g_devid_requests);
    return batch;
}

void answer_device_id_request(const DeviceIdRequest& request) {
    const macaddr mac = get_real_mac(request.mac, request.ip);
    const std::string mac_text = mac.to_string(false);
    if (!is_valid_device_id_request(mac, request.ip)) {
        NK_LOG(nk::log::WARN, "Received invalid device_id request: mac={}, ip={}", mac, request.ip);
        send_device_id_response(mac_text.c_str(), "", request.request_id);
        return;
    }
    const std::string device_id = get_device_id(mac);
    NK_LOG(nk::log::DEBUG, "mac={}, device_id={:s}", mac, device_id);
    send_device_id_response(mac_text.c_str(), device_id.c_str(), request.request_id);
    if (is_temporary(device_id))
        save_pending_device(device_id, mac, request.ip);
}

}  // namespace

void process_device_id_requests() {
    for (const DeviceIdRequest& request : take_requests())
        answer_device_id_request(request);
}
