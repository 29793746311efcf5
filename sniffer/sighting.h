// What one captured frame is worth to the daemon: a DHCP client message or an HTTP user
// agent, already in the form of the bus event that carries it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include <nk/sockutl.h>

#include "frame.h"

namespace nk::sniffer {

// One bus event, ready to send.
struct Event {
    std::string name;
    std::string payload;  // compact JSON
};

struct Sighting {
    enum class Kind { Dhcp, UserAgent };
    Kind kind = Kind::Dhcp;
    nk::sockutl::macaddr mac;
    std::string user_agent;  // UserAgent only: the key of repeats
    Event event;
};

inline constexpr std::uint16_t kDhcpv4ServerPort = 67;
inline constexpr std::uint16_t kDhcpv6ServerPort = 547;
inline constexpr std::uint16_t kHttpPort = 80;

// "sifter_dhcp_payload": {"netif", "source_mac", "raw_payload" (base64 of the UDP header and
// the DHCP message), "version" (4 or 6)}.
Event dhcp_event(const Frame& frame, std::string_view netif);
// "sifter_user_agent": {"src_netif", "src_ip", "src_mac", "user_agent"}; nothing when the
// agent is not valid JSON text.
std::optional<Event> user_agent_event(const Frame& frame, std::string_view netif,
                                      std::string_view user_agent);

// Decodes a frame captured on `netif` and makes its sighting; Skip::None when `out` was set.
// A DHCP message from a client port to a server port, or the first segment of an HTTP request
// to port 80 that names a User-Agent, makes one.
Skip sight(const std::uint8_t* data, std::size_t length, std::string_view netif,
           std::optional<Sighting>& out);

}  // namespace nk::sniffer
