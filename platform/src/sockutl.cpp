#include "nk/sockutl.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <netpacket/packet.h>

#include <cstring>

namespace nk::sockutl {

namespace {

constexpr std::size_t kMacTextLen = 17;  // "aa:bb:cc:dd:ee:ff"
constexpr std::array<std::uint8_t, 6> kBroadcast = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff};

int hex_value(char c) {
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

std::string hex_digits(const std::uint8_t* bytes, std::size_t count, bool upper, char sep) {
    const char* digits = upper ? "0123456789ABCDEF" : "0123456789abcdef";
    std::string out;
    out.reserve(count * 3);
    for (std::size_t i = 0; i < count; ++i) {
        if (sep != '\0' && i != 0)
            out.push_back(sep);
        out.push_back(digits[bytes[i] >> 4]);
        out.push_back(digits[bytes[i] & 0x0f]);
    }
    return out;
}

std::size_t hash_bytes(const std::uint8_t* bytes, std::size_t count) {
    return std::hash<std::string_view>{}(
        std::string_view(reinterpret_cast<const char*>(bytes), count));
}

// The family and bytes of an IPv4 or IPv6 text (without zone), or nullopt.
std::optional<address> pton(const std::string& text) {
    in_addr v4{};
    if (::inet_pton(AF_INET, text.c_str(), &v4) == 1)
        return address(v4);
    in6_addr v6{};
    if (::inet_pton(AF_INET6, text.c_str(), &v6) == 1)
        return address(v6);
    return std::nullopt;
}

}  // namespace

// ---- macaddr ----

std::optional<macaddr> macaddr::parse(std::string_view text) {
    if (text.size() != kMacTextLen)
        return std::nullopt;
    const char sep = text[2];
    if (sep != ':' && sep != '-')
        return std::nullopt;
    std::array<std::uint8_t, 6> bytes{};
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        const std::size_t at = i * 3;
        if (i != 0 && text[at - 1] != sep)
            return std::nullopt;
        const int hi = hex_value(text[at]);
        const int lo = hex_value(text[at + 1]);
        if (hi < 0 || lo < 0)
            return std::nullopt;
        bytes[i] = static_cast<std::uint8_t>((hi << 4) | lo);
    }
    return macaddr(bytes);
}

macaddr::macaddr(std::string_view text) : bytes_(parse(text).value_or(macaddr()).bytes_) {}

macaddr::macaddr(buffer_view view) {
    const auto bytes = view.readn<std::uint8_t>(bytes_.size());
    if (bytes)
        std::memcpy(bytes_.data(), *bytes, bytes_.size());
}

macaddr::macaddr(const sockaddr_ll& link) {
    if (link.sll_halen == bytes_.size())
        std::memcpy(bytes_.data(), link.sll_addr, bytes_.size());
}

bool macaddr::is_valid() const {
    return bytes_ != std::array<std::uint8_t, 6>{} && bytes_ != kBroadcast;
}

std::string macaddr::to_string(bool upper) const {
    return hex_digits(bytes_.data(), bytes_.size(), upper, ':');
}

std::string macaddr::to_cloud_string(bool upper) const {
    return to_string(upper);
}

std::string macaddr::get_hash(int bits) const {
    const std::string all = hex_digits(bytes_.data(), bytes_.size(), false, '\0');
    if (bits <= 0)
        return {};
    return all.substr(0, static_cast<std::size_t>(bits) / 4);
}

// ---- address ----

address::address(const in_addr& v4) : family_(AF_INET) {
    std::memcpy(bytes_.data(), &v4, sizeof(v4));
}

address::address(const in6_addr& v6) : family_(AF_INET6) {
    std::memcpy(bytes_.data(), &v6, sizeof(v6));
}

address::address(const sockaddr* sa) {
    if (sa == nullptr)
        return;
    // Copy out rather than cast: the caller's storage need not be aligned for the larger type.
    if (sa->sa_family == AF_INET) {
        sockaddr_in sin{};
        std::memcpy(&sin, sa, sizeof(sin));
        *this = address(sin.sin_addr);
    } else if (sa->sa_family == AF_INET6) {
        sockaddr_in6 sin6{};
        std::memcpy(&sin6, sa, sizeof(sin6));
        *this = address(sin6.sin6_addr);
    }
}

std::optional<address> address::parse(std::string_view text) {
    if (text.find('\0') != std::string_view::npos)
        return std::nullopt;
    const std::size_t percent = text.find('%');
    if (percent == std::string_view::npos)
        return pton(std::string(text));
    const std::string_view zone = text.substr(percent + 1);
    if (zone.empty() || zone.size() >= IF_NAMESIZE || zone.find('%') != std::string_view::npos) {
        return std::nullopt;
    }
    const auto ip = pton(std::string(text.substr(0, percent)));
    if (!ip || !ip->is_v6())
        return std::nullopt;
    return ip;
}

address::address(std::string_view text) {
    *this = parse(text).value_or(address());
}

bool address::is_link_local() const {
    if (is_v4())
        return bytes_[0] == 169 && bytes_[1] == 254;
    if (is_v6())
        return bytes_[0] == 0xfe && (bytes_[1] & 0xc0) == 0x80;
    return false;
}

bool address::is_in_subnet(const address& net, const address& netmask) const {
    if (!is_v4_or_v6() || family_ != net.family_ || family_ != netmask.family_)
        return false;
    for (std::size_t i = 0; i < size(); ++i) {
        if ((bytes_[i] & netmask.bytes_[i]) != (net.bytes_[i] & netmask.bytes_[i]))
            return false;
    }
    return true;
}

int address::to_prefix() const {
    int prefix = 0;
    for (std::size_t i = 0; i < size(); ++i) {
        for (int bit = 7; bit >= 0; --bit) {
            if ((bytes_[i] & (1u << bit)) == 0)
                return prefix;
            ++prefix;
        }
    }
    return prefix;
}

std::optional<address> address::netmask(int family, int prefix) {
    address mask;
    if (family == AF_INET && prefix >= 0 && prefix <= 32) {
        mask.family_ = AF_INET;
    } else if (family == AF_INET6 && prefix >= 0 && prefix <= 128) {
        mask.family_ = AF_INET6;
    } else {
        return std::nullopt;
    }
    const auto whole = static_cast<std::size_t>(prefix / 8);
    for (std::size_t i = 0; i < whole; ++i)
        mask.bytes_[i] = 0xff;
    if (prefix % 8 != 0)
        mask.bytes_[whole] = static_cast<std::uint8_t>(0xff00u >> (prefix % 8));
    return mask;
}

std::size_t address::hash(bool with_family) const {
    const std::size_t h = hash_bytes(bytes_.data(), size());
    if (!with_family)
        return h;
    return h ^ (static_cast<std::size_t>(family_) * 0x9e3779b97f4a7c15ull);
}

std::string address::to_string() const {
    if (!is_v4_or_v6())
        return {};
    std::array<char, INET6_ADDRSTRLEN> text{};
    if (::inet_ntop(family_, bytes_.data(), text.data(), text.size()) == nullptr)
        return {};
    return text.data();
}

bool operator==(const address& a, const address& b) {
    return a.family_ == b.family_ && a.bytes_ == b.bytes_;
}

bool operator<(const address& a, const address& b) {
    if (a.family_ != b.family_)
        return a.family_ < b.family_;
    return a.bytes_ < b.bytes_;
}

}  // namespace nk::sockutl

std::size_t std::hash<nk::sockutl::macaddr>::operator()(
    const nk::sockutl::macaddr& mac) const noexcept {
    std::uint64_t packed = 0;
    for (const std::uint8_t b : mac.bytes())
        packed = (packed << 8) | b;
    return std::hash<std::uint64_t>{}(packed);
}
