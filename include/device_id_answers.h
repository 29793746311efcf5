// Answers to "request_device_id": which requests are valid, and the queued ones answered.
#pragma once

#include "device.h"

// An asker on another daemon acts on any id it gets: only a LAN client's MAC earns one.
bool is_valid_device_id_request(const macaddr& mac, const address& ip);

// Answers every queued request, from the real MAC behind a mangled one; a MAC without a device
// gets a temporary id and becomes a pending device. Main loop only.
void process_device_id_requests();
