// The device record and the records queued by the bus handlers.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <nk/sockutl.h>

// A device id asked for by another daemon; answered on the bus by request id.
struct DeviceIdRequest {
    nk::sockutl::macaddr mac;
    nk::sockutl::address ip;
    std::uint64_t request_id = 0;
};

// A device whose fields the cloud changed.
struct ChangedInfo {
    std::string device_id;
    std::vector<std::string> fields;
    bool is_additional = false;
};

// An HTTP user agent seen for a LAN client.
struct UserAgent {
    nk::sockutl::address ip;
    nk::sockutl::macaddr mac;
    std::string user_agent;
};

// One inventory record. Its halves arrive with the inventory.
class Device {};
