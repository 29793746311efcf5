#include "dnsmasq_leases.h"

#include <array>
#include <cctype>
#include <optional>
#include <string>

namespace nk::collector {

namespace {

constexpr std::size_t kFields = 5;  // expiry, MAC or IAID, address, host, client id
constexpr std::string_view kNone = "*";
constexpr std::string_view kDuidLine = "duid ";

using Fields = std::array<std::string_view, kFields>;

// Exactly five fields separated by blanks.
bool split(std::string_view line, Fields& fields) {
    std::size_t n = 0;
    std::size_t at = 0;
    while (at < line.size()) {
        while (at < line.size() && (line[at] == ' ' || line[at] == '\t'))
            ++at;
        if (at == line.size())
            break;
        std::size_t end = at;
        while (end < line.size() && line[end] != ' ' && line[end] != '\t')
            ++end;
        if (n == kFields)
            return false;
        fields[n++] = line.substr(at, end - at);
        at = end;
    }
    return n == kFields;
}

std::optional<std::time_t> expiry(std::string_view text) {
    if (text.empty() || text.size() > 18)
        return std::nullopt;
    std::time_t value = 0;
    for (const char c : text) {
        if (!std::isdigit(static_cast<unsigned char>(c)))
            return std::nullopt;
        value = value * 10 + (c - '0');
    }
    return value;
}

std::string optional_text(std::string_view text) {
    return text == kNone ? std::string() : std::string(text);
}

// The reason a line is not a lease, or empty when `lease` was filled.
std::string read_line(std::string_view line, bool v6, std::time_t now, Lease& lease,
                      bool& expired) {
    Fields f;
    if (!split(line, f))
        return "not five fields";
    const std::optional<std::time_t> expires = expiry(f[0]);
    if (!expires)
        return "bad expiry time";
    lease.ip = sockutl::address(f[2]);
    if (v6 ? !lease.ip.is_v6() : !lease.ip.is_v4())
        return v6 ? "bad IPv6 address" : "bad IPv4 address";
    if (!v6) {
        // Other hardware types carry a type prefix ("20-...") and are no Ethernet MACs.
        lease.mac = sockutl::macaddr(f[1]);
        if (!lease.mac.is_valid())
            return "bad MAC address";
    }
    lease.host = optional_text(f[3]);
    if (f[4] != kNone) {
        const std::optional<std::string> id = hex_bytes(f[4]);
        if (!id)
            return "bad client identifier";
        lease.client_id = *id;
    }
    // 0 is a lease that never expires.
    expired = *expires != 0 && *expires <= now;
    return {};
}

}  // namespace

bool looks_like_dnsmasq(std::string_view text) {
    const std::string_view first = text.substr(0, text.find('\n'));
    if (first.substr(0, kDuidLine.size()) == kDuidLine)
        return true;
    Fields f;
    return split(first, f) && expiry(f[0]).has_value();
}

LeaseFile read_dnsmasq_leases(std::string_view text, std::time_t now) {
    LeaseFile out;
    bool v6 = false;
    int number = 0;
    std::size_t at = 0;
    while (at < text.size()) {
        const std::size_t end = text.find('\n', at);
        ++number;
        if (end == std::string_view::npos) {
            // The server rewrites the file in place; the rest is on its way.
            out.torn = true;
            break;
        }
        const std::string_view line = text.substr(at, end - at);
        at = end + 1;
        if (line.empty())
            continue;
        if (line.substr(0, kDuidLine.size()) == kDuidLine) {
            v6 = true;
            continue;
        }
        Lease lease;
        bool expired = false;
        std::string why = read_line(line, v6, now, lease, expired);
        if (!why.empty())
            out.problems.push_back({number, std::move(why)});
        else if (!expired)
            out.leases.push_back(std::move(lease));
    }
    return out;
}

}  // namespace nk::collector
