// Registering devices with the cloud, and telling it the host names the LAN reports.
#include <chrono>
#include <string>

#include <nk/json.h>
#include <nk/log.h>

#include "cloud_request.h"
#include "daemon_state.h"
#include "device.h"
#include "device_storage.h"
#include "device_sync.h"

namespace {

// The seconds left before `mac` may be connected again, or 0 when it may be now.
long blocked_for(const macaddr& mac, int retry_seconds) {
    const auto it = g_connect_device_times.find(mac);
    if (it == g_connect_device_times.end())
        return 0;
    const long age = g_now - it->second;
    return age < retry_seconds ? retry_seconds - age : 0;
}

// The id the cloud keeps for `mac`, or "" when blocked, failed or refused. Takes `params`.
std::string send_connect_device(nk::json_ptr params, const macaddr& mac, int retry_seconds) {
    if (!mac.is_valid())
        return {};
    const long left = blocked_for(mac, retry_seconds);
    if (left > 0) {
        NK_LOG(nk::log::DEBUG, "{} is in blacklist for {:d} more seconds", mac, left);
        return {};
    }
    if (!params)
        return {};

    const char* name = nk::json_string_member(params.get(), "box_detected_name");
    NK_LOG(nk::log::INFO, "Sending connect_device for mac={}, box_detected_name={:s}", mac,
           name != nullptr ? name : "");
    nk::json_ptr answer;
    if (!cloud_request(kCloudConnectDevice, params.get(), &answer))
        return {};

    const json_t* result = json_object_get(answer.get(), "result");
    if (result == nullptr) {
        nk::log::log_json(nk::log::ERROR, "connect_device error: 'result' missing ", answer.get());
        return {};
    }
    const char* id = nk::json_string_member(result, "device_id");
    if (id == nullptr) {
        NK_LOG(nk::log::WARN, "'device_id' missing");
        return {};
    }
    g_connect_device_times[mac] = g_now;
    return id;
}

std::int64_t steady_seconds() {
    const auto since = std::chrono::steady_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::seconds>(since).count();
}

// Sync timer expiries make the loop refresh the fields of devices flagged for it.
void arm_device_info_sync() {
    if (!g_device_info_sync_timer || g_device_info_sync_timer->is_running())
        return;
    const long period_ms = static_cast<long>(g_sync_poll_interval) * 1000;
    if (!g_device_info_sync_timer->start_ms(period_ms, period_ms))
        NK_LOG(nk::log::ERROR, "Failed to start device info sync timer");
}

}  // namespace

bool Device::add_device_to_cloud() {
    const macaddr mac = cloud.macs.empty() ? macaddr() : cloud.macs.begin()->second;
    const std::string id =
        send_connect_device(nk::json_ptr(get_connect_device_params(cloud.box_detected_name)), mac,
                            g_retry_interval["add_device_to_cloud"]);
    cloud.device_id = id;
    if (id.empty())
        return false;
    NK_LOG(nk::log::INFO, "connect_device: new device_id={:s}", id);
    return true;
}

void Device::connect_device(int on_guest) {
    if (cloud.macs.empty()) {
        NK_LOG(nk::log::ERROR, "BUG: device {:s} has no cloud macs", cloud.device_id);
        return;
    }
    if (!add_device_to_cloud() || !lock_device_key())
        return;
    local.device_id = cloud.device_id;
    update_device_fields_from_cloud(g_cloud_fields, true);
    if (local.macips.macs.empty()) {
        NK_LOG(nk::log::ERROR, "BUG: device {:s} has no local macs", cloud.device_id);
        unlock_device_key();
        return;
    }
    set_device_onguest(on_guest);

    local.onbox_info.onbox = 1;
    local.onbox_info.to_send = true;
    handle_onbox_info();

    info_sync_pending = 1;
    info_sync_pending_since = steady_seconds();
    arm_device_info_sync();

    write_device_to_storage(*this, false);
    const macaddr mac = cloud.macs.begin()->second;
    // Runs on unlock, so whoever it notifies finds the device stored.
    external_events.emplace_back([this, mac] { confirm_mac_identity(mac); });
    unlock_device_key();
}

void Device::update_box_detected_name(const std::string& name) {
    if (name.empty() || name == "*" || name == cloud.box_detected_name)
        return;
    for (const std::string& known : cloud.box_detected_name_history) {
        if (known == name)
            return;
    }
    if (cloud.macs.empty()) {
        NK_LOG(nk::log::ERROR, "BUG!! device_id {:s} has 0 macs", cloud.device_id);
        return;
    }

    const std::string id = send_connect_device(nk::json_ptr(get_connect_device_params(name)),
                                               cloud.macs.begin()->second,
                                               g_retry_interval["update_box_detected_name"]);
    if (id.empty())
        return;  // offered again at the next sighting
    if (id != cloud.device_id) {
        // The cloud and the inventory disagree on who this MAC is: reload rather than patch.
        NK_LOG(nk::log::ERROR,
               "BUG!! Device id changed from {:s} to {:s}. Resetting devices list..",
               cloud.device_id, id);
        reset_devices_loaded();
        return;
    }
    NK_LOG(nk::log::INFO, "Updated name for device_id={:s}, from '{:s}' to '{:s}'", id,
           cloud.box_detected_name, name);
    cloud.box_detected_name = name;
    write_device_to_storage(*this, true);
}
