// The BOX's LAN and guest interfaces, by their roles in the settings store, with the subnets
// the kernel gives them.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include <nk/sockutl.h>

namespace nk::collector {

struct LanInterface {
    std::string name;
    bool guest = false;
    sockutl::macaddr mac;  // the BOX's own, on this interface
    std::vector<std::pair<sockutl::address, sockutl::address>> nets;  // address, netmask
};

using LanInterfaces = std::vector<LanInterface>;

// The interfaces whose role is "lan" or "guest", with their MACs and addresses now.
LanInterfaces read_lan_interfaces();

// The interface whose subnet holds `ip`, or null.
const LanInterface* interface_of(const LanInterfaces& lans, const sockutl::address& ip);
const LanInterface* interface_named(const LanInterfaces& lans, const std::string& name);
// Whether `mac` is one of the BOX's own LAN interfaces.
bool is_own_mac(const LanInterfaces& lans, const sockutl::macaddr& mac);

}  // namespace nk::collector
