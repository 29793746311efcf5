// The BOX's own interfaces: roles from the settings store, addresses from the kernel.
#pragma once

#include <cstdint>
#include <mutex>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <fmt/format.h>
#include <nk/sockutl.h>

namespace nk::netMgmt {

enum InterfaceType : std::int32_t { LAN = 0, WAN = 1 };

using AddressPair = std::pair<nk::sockutl::address, nk::sockutl::address>;  // address, netmask

struct Interface {
    std::string name;
    InterfaceType type = LAN;
    nk::sockutl::macaddr mac;
    std::set<AddressPair> ipv4;
    std::set<AddressPair> ipv6;
    bool is_guest = false;

    Interface(std::string name_, InterfaceType type_, bool is_guest_)
        : name(std::move(name_)), type(type_), is_guest(is_guest_) {}

    // Whether one of the addresses of the address's own family is this one.
    bool has_ip(const nk::sockutl::address& ip) const;

    friend bool operator==(const Interface& a, const Interface& b) {
        return a.name == b.name && a.type == b.type && a.mac == b.mac && a.ipv4 == b.ipv4 &&
               a.ipv6 == b.ipv6 && a.is_guest == b.is_guest;
    }
    friend bool operator!=(const Interface& a, const Interface& b) { return !(a == b); }
};

inline std::string_view type_name(InterfaceType type) {
    return type == WAN ? "wan" : "lan";
}

}  // namespace nk::netMgmt

// Rebuilds the interface table into `interfaces`; true when it changed and was published.
bool update_network_info(std::vector<nk::netMgmt::Interface>& interfaces);

// Classification of addresses, interfaces and MACs; safe from the bus thread.
bool is_in_subnet(const std::string& ip);
bool is_in_guest(const nk::sockutl::address& ip);
bool is_wan(const std::string& name);
bool is_guest(const std::string& name);
bool is_on_box(const std::string& mac);

extern std::vector<nk::netMgmt::Interface> g_interfaces;
extern std::mutex g_interfaces_mutex;

// An address with its netmask as a prefix length: 192.168.1.1/24.
template <>
struct fmt::formatter<nk::netMgmt::AddressPair> : fmt::formatter<std::string_view> {
    template <typename Ctx>
    auto format(const nk::netMgmt::AddressPair& pair, Ctx& ctx) const {
        return fmt::format_to(ctx.out(), "{}/{:d}", pair.first, pair.second.to_prefix());
    }
};

// Address sets appear comma-separated, as they are published.
template <>
struct fmt::formatter<nk::netMgmt::Interface> : fmt::formatter<std::string_view> {
    template <typename Ctx>
    auto format(const nk::netMgmt::Interface& iface, Ctx& ctx) const {
        return fmt::format_to(
            ctx.out(), "name={:s}, type={:s}, mac={}, ipv4={}, ipv6={}, is_guest={:d}", iface.name,
            nk::netMgmt::type_name(iface.type), iface.mac, fmt::join(iface.ipv4, ","),
            fmt::join(iface.ipv6, ","), iface.is_guest);
    }
};
