#include "cloud_macs.h"

#include <nk/setmgmt.h>

#include "additional_info.h"
#include "device_identity.h"
#include "device_storage.h"

bool Device::update_mac_from_cloud(const char* text) {
    if (!cloud.add_mac(text != nullptr ? text : ""))
        return false;
    const macaddr mac(text);
    local.macips.add_mac(mac);
    // Whoever the confirmation notifies must find the device stored: it waits for the unlock.
    external_events.emplace_back([mac, id = cloud.device_id] { confirm_mac_identity_of(mac, id); });
    return true;
}

bool Device::update_macs_from_cloud(json_t* array) {
    bool changed = false;
    std::size_t index = 0;
    json_t* value = nullptr;
    json_array_foreach(array, index, value) {
        if (json_is_string(value) && update_mac_from_cloud(json_string_value(value)))
            changed = true;
    }
    const bool stored = changed && write_device_to_storage(*this, true);
    // Without the key held there is no unlock to wait for.
    if (!nk::setMgmt::holds(device_key()))
        run_external_events();
    return stored;
}

void Device::confirm_mac_identity(const macaddr& mac) {
    confirm_mac_identity_of(mac, cloud.device_id);
}

void confirm_mac_identity_of(const macaddr& mac, const std::string& device_id) {
    const auto it = g_temporary_device_ids.find(mac_key(mac));
    if (it != g_temporary_device_ids.end()) {
        send_permanent_device_id_message(it->second.c_str(), device_id.c_str());
        g_temporary_device_ids.erase(it);
        return;
    }
    resubmit_additional_info(mac, device_id);
}
