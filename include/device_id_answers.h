// Answers to "request_device_id": what makes a request valid, and the answers given while the
// main loop waits for the cloud.
#pragma once

#include "device.h"

// An asker on another daemon acts on any id it gets: only a LAN client's MAC earns one.
bool is_valid_device_id_request(const macaddr& mac, const address& ip);

// A synchronous cloud request stalls the loop up to the bus time-out. For that time the ids of
// the inventory are published by MAC, so that requests for known devices are answered by the
// bus thread at once instead of waiting in the queue. Made on the main loop only.
class CloudWait {
public:
    CloudWait();
    ~CloudWait();
    CloudWait(const CloudWait&) = delete;
    CloudWait& operator=(const CloudWait&) = delete;

private:
    bool published_ = false;
};

// Bus thread: answers the request when the loop is waiting on the cloud and the answer cannot
// change (a known device, or an invalid request). False: the loop answers it.
bool answer_while_cloud_waits(const DeviceIdRequest& request);
