// Loading the inventory from the cloud and from storage, and keeping both in step.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "device.h"

// A device's marker under /devices and its record in the device table.
bool write_device_to_storage(const Device& device, bool flag);
void remove_device_from_storage(const Device& device);
std::optional<Device> load_device_from_storage(const std::string& device_id);
bool load_devices_from_storage(std::vector<Device>& out);

bool load_devices_from_cloud();
// Carries local-only state over from the stored devices and drops those the cloud forgot.
void sync_devices_to_storage(const std::vector<Device>& stored);
// Refreshes the fields of devices waiting for it; true when none is left waiting.
bool sync_device_info();
// Takes the loop back to "not loaded", so the next turn loads again.
void reset_devices_loaded();
