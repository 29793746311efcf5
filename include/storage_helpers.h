// Loading the inventory from the cloud and from storage, and keeping both in step.
#pragma once

#include <vector>

#include "device.h"

bool load_devices_from_cloud();
bool load_devices_from_storage(std::vector<Device>& out);
bool sync_devices_to_storage(std::vector<Device>& devices);
// Refreshes the fields of devices waiting for it; true when none is left waiting.
bool sync_device_info();
// Takes the loop back to "not loaded", so the next turn loads again.
void reset_devices_loaded();
// Forgets connect_device attempts old enough to be retried.
void purge_old_mac_timestamps();
