#include "storage_helpers.h"

#include <mutex>

#include "globals.h"

// The cloud list and device storage arrive with the inventory; until then nothing loads.
bool load_devices_from_cloud() {
    return false;
}
bool load_devices_from_storage(std::vector<Device>& /*out*/) {
    return false;
}
bool sync_devices_to_storage(std::vector<Device>& /*devices*/) {
    return false;
}
bool sync_device_info() {
    return true;
}
void purge_old_mac_timestamps() {}

void reset_devices_loaded() {
    std::lock_guard lock(g_devices_loaded_mutex);
    g_cloud_devices_loaded = false;
    g_local_devices_loaded = false;
}
