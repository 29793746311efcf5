// What makes a "request_device_id" valid.
#pragma once

#include "device.h"

// An asker on another daemon acts on any id it gets: only a LAN client's MAC earns one.
bool is_valid_device_id_request(const macaddr& mac, const address& ip);
