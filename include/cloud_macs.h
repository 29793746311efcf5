// The MACs the cloud lists for a device: taken into the record and stored, then confirmed, so
// that what waited under a temporary id (or an older id) moves to the device's id. The members
// Device::update_mac_from_cloud, update_macs_from_cloud and confirm_mac_identity live here.
#pragma once

#include <string>

#include "device.h"

// The confirmation of a MAC of device `device_id`, by value: it may run after the record moved.
void confirm_mac_identity_of(const macaddr& mac, const std::string& device_id);
