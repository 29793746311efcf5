// The BOX's own interfaces: roles from the settings store, addresses from the kernel.
#pragma once

#include <cstdint>
#include <mutex>
#include <set>
#include <string>
#include <utility>
#include <vector>

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

    friend bool operator==(const Interface& a, const Interface& b) {
        return a.name == b.name && a.type == b.type && a.mac == b.mac && a.ipv4 == b.ipv4 &&
               a.ipv6 == b.ipv6 && a.is_guest == b.is_guest;
    }
};

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
