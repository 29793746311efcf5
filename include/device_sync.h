// Loading the inventory from the cloud's device list and reconciling it with the stored devices.
#pragma once

#include <vector>

#include "device.h"

bool load_devices_from_cloud();
// Carries local-only state over from the stored devices and drops those the cloud forgot;
// what fails to be stored joins the storage backlog.
void sync_devices_to_storage(const std::vector<Device>& stored);
// Refreshes the fields of devices waiting for it; true when none is left waiting.
bool sync_device_info();
// Takes the loop back to "not loaded", so the next turn loads again.
void reset_devices_loaded();
