// MAC and IP address value types.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include <fmt/format.h>

#include "nk/buffer_view.h"

struct sockaddr_ll;

namespace nk::sockutl {

class macaddr {
public:
    macaddr() = default;  // all-zero: invalid
    explicit macaddr(const std::array<std::uint8_t, 6>& bytes) : bytes_(bytes) {}
    // Accepts aa:bb:cc:dd:ee:ff and aa-bb-cc-dd-ee-ff in either case; else all-zero.
    explicit macaddr(std::string_view text);
    explicit macaddr(const char* text) : macaddr(std::string_view(text ? text : "")) {}
    explicit macaddr(const std::string& text) : macaddr(std::string_view(text)) {}
    // The view's leading six bytes (the caller's view is not advanced); all-zero when fewer.
    explicit macaddr(buffer_view view);
    explicit macaddr(const sockaddr_ll& link);
    macaddr& operator=(buffer_view view) { return *this = macaddr(view); }

    static std::optional<macaddr> parse(std::string_view text);

    // Not all-zero and not broadcast.
    bool is_valid() const;
    std::string to_string(bool upper = false) const;
    std::string to_cloud_string(bool upper = false) const;
    // The twelve lower-case hex digits of the first bits/4 nibbles (48 gives the whole address).
    std::string get_hash(int bits = 48) const;
    const std::array<std::uint8_t, 6>& bytes() const { return bytes_; }

    friend bool operator==(const macaddr& a, const macaddr& b) { return a.bytes_ == b.bytes_; }
    friend bool operator!=(const macaddr& a, const macaddr& b) { return !(a == b); }
    friend bool operator<(const macaddr& a, const macaddr& b) { return a.bytes_ < b.bytes_; }

private:
    std::array<std::uint8_t, 6> bytes_{};
};

class address {
public:
    address() = default;  // neither v4 nor v6
    // inet_pton of either family; an IPv6 zone ("%eth0") is accepted and dropped.
    explicit address(std::string_view text);
    explicit address(const char* text) : address(std::string_view(text ? text : "")) {}
    explicit address(const std::string& text) : address(std::string_view(text)) {}
    explicit address(const in_addr& v4);
    explicit address(const in6_addr& v6);
    // AF_INET or AF_INET6 socket address; any other family gives an empty address.
    explicit address(const sockaddr* sa);

    static std::optional<address> parse(std::string_view text);

    int family() const { return family_; }
    bool is_v4() const { return family_ == AF_INET; }
    bool is_v6() const { return family_ == AF_INET6; }
    bool is_v4_or_v6() const { return is_v4() || is_v6(); }
    // fe80::/10 for IPv6, 169.254.0.0/16 for IPv4.
    bool is_link_local() const;
    // Same family as both and equal under the mask.
    bool is_in_subnet(const address& net, const address& netmask) const;
    // Number of leading one bits of this address used as a netmask.
    int to_prefix() const;
    // Builds the netmask of a prefix length for a family; empty when out of range.
    static std::optional<address> netmask(int family, int prefix);
    // With `with_family`, v4 and v6 addresses of the same bytes hash apart.
    std::size_t hash(bool with_family) const;
    std::string to_string() const;
    // Network-order bytes: 4 for v4, 16 for v6, none otherwise.
    const std::uint8_t* bytes() const { return bytes_.data(); }
    std::size_t size() const { return is_v4() ? 4 : is_v6() ? 16 : 0; }

    friend bool operator==(const address& a, const address& b);
    friend bool operator!=(const address& a, const address& b) { return !(a == b); }
    friend bool operator<(const address& a, const address& b);

private:
    int family_ = AF_UNSPEC;
    std::array<std::uint8_t, 16> bytes_{};
};

}  // namespace nk::sockutl

template <>
struct std::hash<nk::sockutl::macaddr> {
    std::size_t operator()(const nk::sockutl::macaddr& mac) const noexcept;
};

template <>
struct std::hash<nk::sockutl::address> {
    std::size_t operator()(const nk::sockutl::address& ip) const noexcept { return ip.hash(true); }
};

template <>
struct fmt::formatter<nk::sockutl::macaddr> : fmt::formatter<std::string_view> {
    template <typename Ctx>
    auto format(const nk::sockutl::macaddr& mac, Ctx& ctx) const {
        return fmt::formatter<std::string_view>::format(mac.to_string(), ctx);
    }
};

template <>
struct fmt::formatter<nk::sockutl::address> : fmt::formatter<std::string_view> {
    template <typename Ctx>
    auto format(const nk::sockutl::address& ip, Ctx& ctx) const {
        return fmt::formatter<std::string_view>::format(ip.to_string(), ctx);
    }
};
