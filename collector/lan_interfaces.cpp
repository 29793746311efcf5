#include "lan_interfaces.h"

#include <ifaddrs.h>
#include <netpacket/packet.h>

#include <memory>

#include <nk/constants.h>
#include <nk/setmgmt.h>

namespace nk::collector {

namespace {

struct IfaddrsDeleter {
    void operator()(ifaddrs* list) const { ::freeifaddrs(list); }
};

void add_kernel_addresses(LanInterfaces& lans) {
    ifaddrs* raw = nullptr;
    if (::getifaddrs(&raw) != 0)
        return;
    const std::unique_ptr<ifaddrs, IfaddrsDeleter> list(raw);
    for (const ifaddrs* ifa = list.get(); ifa != nullptr; ifa = ifa->ifa_next) {
        if (ifa->ifa_addr == nullptr)
            continue;
        for (LanInterface& lan : lans) {
            if (lan.name != ifa->ifa_name)
                continue;
            if (ifa->ifa_addr->sa_family == AF_PACKET) {
                lan.mac = sockutl::macaddr(*reinterpret_cast<const sockaddr_ll*>(ifa->ifa_addr));
                continue;
            }
            if (ifa->ifa_netmask == nullptr)
                continue;
            const sockutl::address ip(ifa->ifa_addr);
            const sockutl::address mask(ifa->ifa_netmask);
            // Every interface has fe80::/64: a link-local address names no interface.
            if (ip.is_v4_or_v6() && !ip.is_link_local() && mask.family() == ip.family())
                lan.nets.emplace_back(ip, mask);
        }
    }
}

}  // namespace

LanInterfaces read_lan_interfaces() {
    const std::string roles(nk::kNetworkInterfacesKey);
    std::vector<std::string> names;
    LanInterfaces lans;
    if (nk::setMgmt::enumSubkeys(roles, names) < 0)
        return lans;
    for (const std::string& name : names) {
        const std::string role = nk::setMgmt::getKeyValue(roles + "/" + name, "");
        if (role == "lan" || role == "guest")
            lans.push_back(LanInterface{name, role == "guest", {}, {}});
    }
    add_kernel_addresses(lans);
    return lans;
}

const LanInterface* interface_of(const LanInterfaces& lans, const sockutl::address& ip) {
    for (const LanInterface& lan : lans) {
        for (const auto& [net, mask] : lan.nets) {
            if (ip.is_in_subnet(net, mask))
                return &lan;
        }
    }
    return nullptr;
}

const LanInterface* interface_named(const LanInterfaces& lans, const std::string& name) {
    for (const LanInterface& lan : lans) {
        if (lan.name == name)
            return &lan;
    }
    return nullptr;
}

bool is_own_mac(const LanInterfaces& lans, const sockutl::macaddr& mac) {
    for (const LanInterface& lan : lans) {
        if (lan.mac == mac)
            return true;
    }
    return false;
}

}  // namespace nk::collector
