#include "frame.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <algorithm>
#include <cstring>

namespace nk::sniffer {

namespace {

constexpr std::uint16_t kEtherIpv4 = 0x0800;
constexpr std::uint16_t kEtherIpv6 = 0x86dd;
constexpr std::uint16_t kEther8021Q = 0x8100;
constexpr std::uint16_t kEther8021AD = 0x88a8;
constexpr int kMaxVlanTags = 2;
constexpr int kMaxIpv6ExtensionHeaders = 8;
constexpr std::uint32_t kEthernetHeader = 14;
constexpr std::uint32_t kVlanTag = 4;
constexpr std::uint32_t kIpv4MinHeader = 20;
constexpr std::uint32_t kIpv6Header = 40;
constexpr std::uint32_t kUdpHeader = 8;
constexpr std::uint32_t kTcpMinHeader = 20;

std::uint16_t be16(const std::uint8_t* p) {
    return static_cast<std::uint16_t>(p[0] << 8 | p[1]);
}

// The bytes [offset, offset + n) of `view`, or nothing when they are not all there.
std::optional<const std::uint8_t*> bytes_at(const nk::buffer_view& view, std::uint32_t offset,
                                            std::uint32_t n) {
    if (offset > view.size || view.size - offset < n)
        return std::nullopt;
    return view.data + offset;
}

nk::buffer_view slice(const nk::buffer_view& view, std::uint32_t offset, std::uint32_t n) {
    return nk::buffer_view(view.data + offset, n);
}

Skip decode_udp(const nk::buffer_view& ip_payload, Frame& out) {
    const auto header = bytes_at(ip_payload, 0, kUdpHeader);
    if (!header)
        return Skip::Truncated;
    const std::uint16_t length = be16(*header + 4);
    if (length < kUdpHeader)
        return Skip::Malformed;
    if (length > ip_payload.size)
        return Skip::Truncated;
    out.transport = Transport::Udp;
    out.src_port = be16(*header);
    out.dst_port = be16(*header + 2);
    out.transport_bytes = slice(ip_payload, 0, length);
    out.payload = slice(ip_payload, kUdpHeader, length - kUdpHeader);
    return Skip::None;
}

Skip decode_tcp(const nk::buffer_view& ip_payload, Frame& out) {
    const auto header = bytes_at(ip_payload, 0, kTcpMinHeader);
    if (!header)
        return Skip::Truncated;
    const std::uint32_t header_length = ((*header)[12] >> 4) * 4u;
    if (header_length < kTcpMinHeader)
        return Skip::Malformed;
    if (header_length > ip_payload.size)
        return Skip::Truncated;
    out.transport = Transport::Tcp;
    out.src_port = be16(*header);
    out.dst_port = be16(*header + 2);
    out.transport_bytes = slice(ip_payload, 0, header_length);
    out.payload = slice(ip_payload, header_length, ip_payload.size - header_length);
    return Skip::None;
}

Skip decode_transport(int protocol, const nk::buffer_view& ip_payload, Frame& out) {
    switch (protocol) {
        case IPPROTO_UDP:
            return decode_udp(ip_payload, out);
        case IPPROTO_TCP:
            return decode_tcp(ip_payload, out);
        default:
            return Skip::NotUdpOrTcp;
    }
}

Skip decode_ipv4(const nk::buffer_view& packet, Frame& out) {
    const auto header = bytes_at(packet, 0, kIpv4MinHeader);
    if (!header)
        return Skip::Truncated;
    const std::uint8_t* h = *header;
    const std::uint32_t header_length = (h[0] & 0x0f) * 4u;
    const std::uint32_t total_length = be16(h + 2);
    if ((h[0] >> 4) != 4 || header_length < kIpv4MinHeader || total_length < header_length)
        return Skip::Malformed;
    if (header_length > packet.size)
        return Skip::Truncated;
    // More fragments, or an offset: this is not a whole datagram.
    if ((be16(h + 6) & 0x3fff) != 0)
        return Skip::Fragment;
    out.ip_version = 4;
    out.src_ip.fill(0);
    std::memcpy(out.src_ip.data(), h + 12, 4);
    // The frame may hold Ethernet padding after the datagram, or less than it when cut.
    const std::uint32_t end = std::min(total_length, packet.size);
    return decode_transport(h[9], slice(packet, header_length, end - header_length), out);
}

Skip decode_ipv6(const nk::buffer_view& packet, Frame& out) {
    const auto header = bytes_at(packet, 0, kIpv6Header);
    if (!header)
        return Skip::Truncated;
    const std::uint8_t* h = *header;
    const std::uint32_t payload_length = be16(h + 4);
    // A zero payload length means a jumbogram, which no LAN carries.
    if ((h[0] >> 4) != 6 || payload_length == 0)
        return Skip::Malformed;
    out.ip_version = 6;
    std::memcpy(out.src_ip.data(), h + 8, 16);
    const std::uint32_t end = std::min(kIpv6Header + payload_length, packet.size);
    std::uint32_t offset = kIpv6Header;
    int next = h[6];
    for (int i = 0; i < kMaxIpv6ExtensionHeaders; ++i) {
        switch (next) {
            case IPPROTO_HOPOPTS:
            case IPPROTO_ROUTING:
            case IPPROTO_DSTOPTS: {
                const auto ext = bytes_at(slice(packet, 0, end), offset, 2);
                if (!ext)
                    return Skip::Truncated;
                next = (*ext)[0];
                offset += ((*ext)[1] + 1u) * 8u;
                if (offset > end)
                    return Skip::Truncated;
                break;
            }
            case IPPROTO_FRAGMENT:
                return Skip::Fragment;
            default:
                return decode_transport(next, slice(packet, offset, end - offset), out);
        }
    }
    return Skip::Malformed;
}

}  // namespace

const char* to_string(Skip skip) {
    switch (skip) {
        case Skip::None:
            return "none";
        case Skip::Truncated:
            return "truncated";
        case Skip::Fragment:
            return "fragment";
        case Skip::NotIp:
            return "not IP";
        case Skip::NotUdpOrTcp:
            return "not UDP or TCP";
        case Skip::Malformed:
            return "malformed";
        case Skip::Uninteresting:
            return "uninteresting";
    }
    return "?";
}

std::string Frame::src_ip_text() const {
    char text[INET6_ADDRSTRLEN] = {};
    const int family = ip_version == 4 ? AF_INET : AF_INET6;
    if (::inet_ntop(family, src_ip.data(), text, sizeof text) == nullptr)
        return {};
    return text;
}

Skip decode_frame(const std::uint8_t* data, std::size_t length, Frame& out) {
    out = Frame{};
    // A frame is never near 4 GiB; anything longer is cut to what buffer_view can hold.
    const nk::buffer_view frame(
        data, static_cast<std::uint32_t>(std::min<std::size_t>(length, UINT32_MAX)));
    const auto ethernet = bytes_at(frame, 0, kEthernetHeader);
    if (!ethernet)
        return Skip::Truncated;
    out.src_mac = nk::sockutl::macaddr(nk::buffer_view(*ethernet + 6, 6));
    std::uint32_t offset = kEthernetHeader;
    std::uint16_t type = be16(*ethernet + 12);
    for (int tags = 0; type == kEther8021Q || type == kEther8021AD; ++tags) {
        if (tags == kMaxVlanTags)
            return Skip::NotIp;
        const auto tag = bytes_at(frame, offset, kVlanTag);
        if (!tag)
            return Skip::Truncated;
        if (!out.vlan)
            out.vlan = be16(*tag) & 0x0fff;
        type = be16(*tag + 2);
        offset += kVlanTag;
    }
    const nk::buffer_view packet = slice(frame, offset, frame.size - offset);
    switch (type) {
        case kEtherIpv4:
            return decode_ipv4(packet, out);
        case kEtherIpv6:
            return decode_ipv6(packet, out);
        default:
            return Skip::NotIp;
    }
}

}  // namespace nk::sniffer
