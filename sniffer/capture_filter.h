// The kernel filter of every capture: only DHCP client messages and the first segments of
// HTTP requests reach the sifter, tagged with 802.1Q or not.
#pragma once

#include <string>

namespace nk::sniffer {

// A pcap filter expression: UDP to port 67 or 547, or TCP to port 80 whose payload begins
// with an HTTP method, over IPv4 or IPv6 (without extension headers before TCP), each also
// inside a VLAN tag.
std::string capture_filter();

}  // namespace nk::sniffer
