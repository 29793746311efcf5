// Readers of the DHCP messages LAN clients send, as captured on the BOX: what identifies the
// client (its requested options, vendor class and host name) and the MAC it claims.
#pragma once

#include <nk/buffer_view.h>
#include <nk/sockutl.h>

#include "dhcp.h"

namespace nk {

// `message` starts at the BOOTP header (the UDP header removed), read position 0; `src_mac` is
// the frame's source address; `result` is fresh and filled in place. True when the message is
// a client request with a known type and a non-empty fingerprint. A malformed message is
// rejected with one log line naming the fault; nothing is read outside `message`.
bool parse_dhcpv4_message(buffer_view& message, const sockutl::macaddr& src_mac,
                          DhcpResult& result);

// The same for a DHCPv6 client message starting at its msg-type byte. A host name alone makes
// a result; the result's MAC is always `src_mac`. A vendor class item whose length field is cut
// to one byte throws std::bad_optional_access, which the caller catches.
bool parse_dhcpv6_message(buffer_view& message, const sockutl::macaddr& src_mac,
                          DhcpResult& result);

}  // namespace nk
