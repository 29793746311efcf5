// Devices asked about on the bus before the inventory had them, waiting to be registered.
#pragma once

#include <string>
#include <vector>

#include "device.h"

extern std::vector<Device> g_pending_devices;

// Queues a device under the temporary id it was given, once per id, and only in lease mode 0.
void save_pending_device(const std::string& local_id, const macaddr& mac, const address& ip);
