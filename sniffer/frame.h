// The headers of one captured Ethernet frame, as far as the sifter needs them: who sent it and
// the UDP datagram or TCP segment it carries. Every read is bounds-checked; a frame that is cut
// short, fragmented or malformed yields a reason instead of a frame.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include <nk/buffer_view.h>
#include <nk/sockutl.h>

namespace nk::sniffer {

enum class Transport : std::uint8_t { Udp, Tcp };

// Why a frame carries nothing for the sifter. Every value is counted.
enum class Skip : std::uint8_t {
    None,
    Truncated,      // a header or the UDP datagram ends beyond what was captured
    Fragment,       // an IPv4 fragment or an IPv6 fragment header: the headers are not all here
    NotIp,          // another EtherType, or more VLAN tags than a LAN uses
    NotUdpOrTcp,    // another protocol after IP (ICMP, ...)
    Malformed,      // a length or version field that cannot be right
    Uninteresting,  // UDP or TCP, but no DHCP client message and no HTTP User-Agent
};
const char* to_string(Skip skip);

struct Frame {
    nk::sockutl::macaddr src_mac;
    std::optional<std::uint16_t> vlan;  // the outermost 802.1Q tag's VLAN id
    int ip_version = 0;                 // 4 or 6
    std::array<std::uint8_t, 16> src_ip{};
    Transport transport = Transport::Udp;
    std::uint16_t src_port = 0;
    std::uint16_t dst_port = 0;
    // UDP: the 8-byte header and the whole datagram it announces. TCP: the header.
    nk::buffer_view transport_bytes;
    // UDP: the datagram's payload; TCP: the segment's payload as far as it was captured.
    nk::buffer_view payload;

    std::string src_ip_text() const;
};

// Decodes Ethernet (with up to two VLAN tags), IPv4 or IPv6 (skipping hop-by-hop, routing
// and destination options headers), then UDP or TCP. Trailing Ethernet padding is ignored.
Skip decode_frame(const std::uint8_t* data, std::size_t length, Frame& out);

}  // namespace nk::sniffer
