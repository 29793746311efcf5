// Answers to "request_device_id": what makes a request valid, and the answers the bus thread
// gives itself.
#pragma once

#include "device.h"

// An asker on another daemon acts on any id it gets: only a LAN client's MAC earns one.
bool is_valid_device_id_request(const macaddr& mac, const address& ip);

// A request for a known device needs nothing of the loop but the inventory's ids, and the loop
// may be busy for long (a synchronous cloud request waits up to the bus time-out, a store
// write is flushed to disk). So the ids of the inventory are published by MAC, and the bus
// thread answers requests for known devices, and invalid ones, at once; a MAC that needs a
// temporary id still goes to the loop. Main loop only: `open` once the loop is active and has
// the first lease table (closed, every request waits in the queue, as before the first
// leases). Publishes again only when the inventory's ids or MACs changed.
void set_device_id_answers(bool open);
// Main loop, before work that may wait: publishes what changed since the last turn.
void refresh_device_id_answers();

// Bus thread: answers the request when the published ids can (a known device, or an invalid
// request). False: the loop answers it.
bool answer_from_published_ids(const DeviceIdRequest& request);
