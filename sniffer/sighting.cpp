#include "sighting.h"

#include <jansson.h>

#include <nk/json.h>
#include <nk/util.h>

#include "http_request.h"

namespace nk::sniffer {

namespace {

constexpr std::uint16_t kDhcpv4ClientPort = 68;
constexpr std::uint16_t kDhcpv6ClientPort = 546;

std::string_view as_text(const nk::buffer_view& bytes) {
    return std::string_view(reinterpret_cast<const char*>(bytes.data), bytes.size);
}

std::string compact(const nk::json_ptr& json) {
    return json ? nk::json_dump_compact(json.get()) : std::string();
}

// The DHCP version a datagram speaks, 0 for none: client port to server port.
int dhcp_version(const Frame& frame) {
    if (frame.transport != Transport::Udp)
        return 0;
    if (frame.dst_port == kDhcpv4ServerPort && frame.src_port == kDhcpv4ClientPort &&
        frame.ip_version == 4)
        return 4;
    if (frame.dst_port == kDhcpv6ServerPort && frame.src_port == kDhcpv6ClientPort &&
        frame.ip_version == 6)
        return 6;
    return 0;
}

}  // namespace

Event dhcp_event(const Frame& frame, std::string_view netif) {
    const std::string mac = frame.src_mac.to_string();
    const std::string raw = nk::base64_encode(as_text(frame.transport_bytes));
    const nk::json_ptr json(json_pack(
        "{s:s%, s:s%, s:s%, s:i}", "netif", netif.data(), netif.size(), "source_mac", mac.data(),
        mac.size(), "raw_payload", raw.data(), raw.size(), "version", dhcp_version(frame)));
    return Event{"sifter_dhcp_payload", compact(json)};
}

std::optional<Event> user_agent_event(const Frame& frame, std::string_view netif,
                                      std::string_view user_agent) {
    const std::string mac = frame.src_mac.to_string();
    const std::string ip = frame.src_ip_text();
    // json_pack refuses text that is not UTF-8.
    const nk::json_ptr json(json_pack("{s:s%, s:s%, s:s%, s:s%}", "src_netif", netif.data(),
                                      netif.size(), "src_ip", ip.data(), ip.size(), "src_mac",
                                      mac.data(), mac.size(), "user_agent", user_agent.data(),
                                      user_agent.size()));
    if (!json)
        return std::nullopt;
    return Event{"sifter_user_agent", compact(json)};
}

Skip sight(const std::uint8_t* data, std::size_t length, std::string_view netif,
           std::optional<Sighting>& out) {
    out.reset();
    Frame frame;
    const Skip skip = decode_frame(data, length, frame);
    if (skip != Skip::None)
        return skip;
    if (!frame.src_mac.is_valid())
        return Skip::Malformed;
    if (dhcp_version(frame) != 0) {
        Event event = dhcp_event(frame, netif);
        if (event.payload.empty())
            return Skip::Malformed;
        out = Sighting{Sighting::Kind::Dhcp, frame.src_mac, {}, std::move(event)};
        return Skip::None;
    }
    if (frame.transport != Transport::Tcp || frame.dst_port != kHttpPort)
        return Skip::Uninteresting;
    std::optional<std::string> agent = user_agent_of(as_text(frame.payload));
    if (!agent)
        return Skip::Uninteresting;
    std::optional<Event> event = user_agent_event(frame, netif, *agent);
    if (!event)
        return Skip::Uninteresting;
    out = Sighting{Sighting::Kind::UserAgent, frame.src_mac, std::move(*agent), std::move(*event)};
    return Skip::None;
}

}  // namespace nk::sniffer
