// Telling the cloud which devices this BOX manages, with their guest status and addresses.
#include <algorithm>
#include <string>
#include <vector>

#include <fmt/ranges.h>
#include <nk/json.h>
#include <nk/log.h>

#include "cloud_request.h"
#include "daemon_state.h"
#include "device.h"
#include "device_storage.h"
#include "onbox_guardian.h"
#include "onbox_reporting.h"

namespace {

// A report held back as too soon is sent once its pause is over, not only at the device's next
// change: a client's first addresses often come in two lease messages seconds apart, and the
// second may be the last for hours. Main loop only.
bool s_reports_deferred = false;

// Sorted, so that the same addresses always give the same report.
std::vector<address> sorted(const nk::ip_set& ips) {
    std::vector<address> out(ips.begin(), ips.end());
    std::sort(out.begin(), out.end());
    return out;
}

bool append_texts(json_t* array, const std::vector<address>& ips) {
    for (const address& ip : ips) {
        if (json_array_append_new(array, json_string(ip.to_string().c_str())) != 0)
            return false;
    }
    return true;
}

// {"<mac>": {"ipv4": [...], "ipv6": [...]}} for every MAC with an address; `first_v4` gets
// the first IPv4 address met. Null on a JSON failure.
nk::json_ptr make_ip_list(const nk::macips_t& macips, std::string& first_v4) {
    nk::json_ptr list(json_object());
    if (!list)
        return nullptr;
    for (const macaddr& mac : macips.macs) {
        const auto it = macips.ips.find(mac);
        if (it == macips.ips.end() || it->second.empty())
            continue;
        const std::vector<address> v4 =
            sorted(macips.filter_ips(mac, [](const address& ip) { return ip.is_v4(); }));
        const std::vector<address> v6 = sorted(macips.ips6(mac, false));
        nk::json_ptr entry(json_pack("{s:[], s:[]}", "ipv4", "ipv6"));
        if (!entry || !append_texts(json_object_get(entry.get(), "ipv4"), v4) ||
            !append_texts(json_object_get(entry.get(), "ipv6"), v6))
            return nullptr;
        if (json_object_set_new(list.get(), mac.to_cloud_string(false).c_str(), entry.release()) !=
            0)
            return nullptr;
        if (first_v4.empty() && !v4.empty())
            first_v4 = v4.front().to_string();
    }
    return list;
}

nk::json_ptr make_onbox_body(const Device& device) {
    const int onbox = device.local.onbox_info.onbox;
    nk::json_ptr body(json_pack("{s:{s:s}, s:i}", "connect_destination", "device_id",
                                device.cloud.device_id.c_str(), "onbox", onbox));
    if (!body || onbox == 0)
        return body;
    std::string first_v4;
    nk::json_ptr ip_list = make_ip_list(device.local.macips, first_v4);
    if (!ip_list ||
        json_object_set_new(body.get(), "network", json_integer(device.cloud.onguest)) != 0 ||
        json_object_set_new(body.get(), "ip_list", ip_list.release()) != 0)
        return nullptr;
    if (!first_v4.empty() &&
        json_object_set_new(body.get(), "ip", json_string(first_v4.c_str())) != 0)
        return nullptr;
    return body;
}

}  // namespace

void report_deferred_onbox() {
    if (!s_reports_deferred)
        return;
    s_reports_deferred = false;
    // By index: unlocking runs deferred events, which may grow the inventory.
    for (std::size_t i = 0; i < g_devices.size(); ++i) {
        Device& device = g_devices[i];
        if (!device.local.onbox_info.to_send || device.cloud.device_id == g_device_id ||
            g_now - device.local.onbox_info.sent_at < g_retry_interval["send_onbox_to_cloud"]) {
            s_reports_deferred = s_reports_deferred || device.local.onbox_info.to_send;
            continue;
        }
        if (!device.lock_device_key())
            continue;
        device.handle_onbox_info();
        g_devices[i].unlock_device_key();
    }
}

void Device::handle_onbox_info() {
    if (!nk::onbox::Guardian::instance().allows() || !local.onbox_info.to_send)
        return;
    if (local.onbox_info.onbox == 0 && cloud.box_device_id != g_device_id) {
        NK_LOG(nk::log::DEBUG, "Device id {:s} is managed by another device {:s}", cloud.device_id,
               cloud.box_device_id);
        local.onbox_info.to_send = false;
        write_device_to_storage(*this, true);
        return;
    }
    // On failure to_send stays set: the next change or sighting tries again.
    if (!send_onbox_to_cloud())
        NK_LOG(nk::log::WARN, "Failed to send onbox to cloud");
}

bool Device::send_onbox_to_cloud() {
    OnboxInfo& info = local.onbox_info;
    if (g_now - info.sent_at < g_retry_interval["send_onbox_to_cloud"]) {
        NK_LOG(nk::log::WARN, "Too soon to resend onbox for device_id {:s}", cloud.device_id);
        s_reports_deferred = true;
        return true;
    }
    if (cloud.device_id == g_device_id) {
        NK_LOG(nk::log::ERROR, "BUG: Trying to send onbox info for BOX device id");
        nk::log::backtrace(nk::log::default_channel());
        return false;
    }
    // Stamped before sending, so a failed attempt also waits out the pause.
    info.sent_at = g_now;
    const nk::json_ptr body = make_onbox_body(*this);
    if (!body)
        return false;

    NK_LOG(nk::log::DEBUG,
           "Sending local_onbox={:d}, onguest={:d} for device {:s} with box_device_id={:s} and "
           "macs={}",
           info.onbox, cloud.onguest, cloud.device_id, cloud.box_device_id, local.macips.macs);
    nk::json_ptr answer;
    if (!cloud_request(kCloudSetDeviceOnbox, body.get(), &answer))
        return false;
    if (nk::extract_response_status(answer.get()) != 0) {
        NK_LOG(nk::log::ERROR, "Error code: {:d}", nk::extract_error_data_code(answer.get()));
        return false;
    }
    if (cloud.box_device_id != g_device_id) {
        cloud.box_device_id = g_device_id;
        NK_LOG(nk::log::INFO, "Device id {:s} is now managed by BOX device_id {:s}",
               cloud.device_id, g_device_id);
    }
    write_device_to_storage(*this, true);
    info.to_send = false;
    return true;
}
