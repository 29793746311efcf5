#include "pending_devices.h"

#include "daemon_state.h"

std::vector<Device> g_pending_devices;

void save_pending_device(const std::string& local_id, const macaddr& mac, const address& ip) {
    if (g_nkleases_mode != 0)
        return;
    for (const Device& device : g_pending_devices) {
        if (device.local.device_id == local_id)
            return;
    }
    g_pending_devices.emplace_back(local_id, mac, nk::ip_set{ip}, std::string());
}
