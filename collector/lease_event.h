// One line of the DHCP server's lease script (collector/nkdevinfo-lease-script): what a client
// sent when it got, kept or lost a lease. dnsmasq tells its script what its lease file does not
// hold: the host name as the client supplied it, its requested options and vendor class.
//
//   {"event":"add","time":1795541660,"mac":"02:45:57:de:3b:da","ip":"198.51.100.121",
//    "iface":"br-lan","client_id":"01:02:45:57:de:3b:da","options":"1,121,3,6,15,119,252",
//    "vendor_hex":"...","host_hex":"4c756361732d6950686f6e65"}
//
// A DHCPv6 event has the client's "duid" instead of a client identifier, and "mac" when the
// server knew it. Free text is hex, so that no byte a client sends can break a line.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include <nk/sockutl.h>

#include "dhcp_fingerprint.h"

namespace nk::collector {

struct LeaseEvent {
    enum class Action { Add, Old, Del };

    Action action = Action::Add;
    sockutl::macaddr mac;  // a DHCPv6 event's only when the server knew it
    sockutl::address ip;
    std::string duid;       // DHCPv6 only, raw bytes
    std::string client_id;  // DHCPv4 client identifier, raw bytes; empty: none
    std::string host;       // as supplied, raw bytes; empty: none
    DhcpFingerprint fingerprint;
};

// Longer lines are no lease script's.
inline constexpr std::size_t kMaxLeaseEventLine = 4096;

// The event of one line, or nullopt with the reason in `why`.
std::optional<LeaseEvent> read_lease_event(std::string_view line, std::string& why);

}  // namespace nk::collector
