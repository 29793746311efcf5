#include "network_info.h"

#include <ifaddrs.h>
#include <linux/if_packet.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <optional>

#include <nk/constants.h>
#include <nk/log.h>
#include <nk/nkerrno.h>
#include <nk/setmgmt.h>

#include "daemon_state.h"
#include "device_storage.h"

using nk::netMgmt::AddressPair;
using nk::netMgmt::Interface;

std::vector<Interface> g_interfaces;
std::mutex g_interfaces_mutex;

namespace {

const nk::path kConfigKey = "/network/interfaces/config";
const nk::path kConfigRefreshKey = "/network/interfaces/config_refresh";
const nk::path kBoxDeviceIdKey = "/daemons/nkcloudd/device_id";

const std::set<AddressPair>& pairs_of_family(const Interface& iface, const address& ip) {
    return ip.is_v4() ? iface.ipv4 : iface.ipv6;
}

bool serves(const Interface& iface, const address& ip) {
    const auto& pairs = pairs_of_family(iface, ip);
    return std::any_of(pairs.begin(), pairs.end(), [&ip](const AddressPair& pair) {
        return ip.is_in_subnet(pair.first, pair.second);
    });
}

template <typename Pred>
bool any_interface(Pred pred) {
    std::lock_guard lock(g_interfaces_mutex);
    return std::any_of(g_interfaces.begin(), g_interfaces.end(), pred);
}

std::optional<Interface> interface_of_role(const std::string& name, const std::string& role) {
    if (role == "wan")
        return Interface(name, nk::netMgmt::WAN, false);
    if (role == "lan")
        return Interface(name, nk::netMgmt::LAN, false);
    if (role == "guest")
        return Interface(name, nk::netMgmt::LAN, true);
    NK_LOG(nk::log::WARN, "Interface {:s} has unknown type {:s}", name, role);
    return std::nullopt;
}

// False when the roles cannot be listed at all; an unreadable or unknown role only drops its
// interface.
bool read_roles(std::vector<Interface>& interfaces) {
    const nk::path roles_key(nk::kNetworkInterfacesKey);
    std::vector<std::string> names;
    if (nk::setMgmt::enumSubkeys(roles_key, names) < 0) {
        NK_LOG(nk::log::ERROR, "Error getting subkeys of {}, nkerrno: {}", roles_key,
               nk::errno_text(nkerrno));
        return false;
    }
    for (const std::string& name : names) {
        std::string role;
        const nk::path key = roles_key / name;
        if (nk::setMgmt::getKey(key, role) < 0) {
            NK_LOG(nk::log::ERROR, "Unable to get interface type from setter {}", key);
            continue;
        }
        if (auto iface = interface_of_role(name, role))
            interfaces.push_back(std::move(*iface));
    }
    return !names.empty();
}

void add_kernel_entry(const ifaddrs& entry, Interface& iface) {
    switch (entry.ifa_addr->sa_family) {
        case AF_INET:
            iface.ipv4.emplace(address(entry.ifa_addr), address(entry.ifa_netmask));
            break;
        case AF_INET6:
            iface.ipv6.emplace(address(entry.ifa_addr), address(entry.ifa_netmask));
            break;
        case AF_PACKET: {
            // Copied out: the list's storage need not be aligned for sockaddr_ll.
            sockaddr_ll link{};
            std::memcpy(&link, entry.ifa_addr, sizeof(link));
            const macaddr mac(link);
            if (mac.is_valid())
                iface.mac = mac;
            break;
        }
        default:
            break;
    }
}

struct IfaddrsDeleter {
    void operator()(ifaddrs* list) const { freeifaddrs(list); }
};

bool read_kernel_addresses(std::vector<Interface>& interfaces) {
    ifaddrs* raw = nullptr;
    if (getifaddrs(&raw) != 0) {
        const int err = errno;
        NK_LOG(nk::log::ERROR, "getifaddrs failed: errno={:d}, strerror={:s}", err,
               std::strerror(err));
        return false;
    }
    const std::unique_ptr<ifaddrs, IfaddrsDeleter> list(raw);
    for (const ifaddrs* entry = list.get(); entry != nullptr; entry = entry->ifa_next) {
        if (entry->ifa_addr == nullptr || entry->ifa_name == nullptr)
            continue;
        const auto it =
            std::find_if(interfaces.begin(), interfaces.end(),
                         [entry](const Interface& i) { return i.name == entry->ifa_name; });
        if (it != interfaces.end())
            add_kernel_entry(*entry, *it);
    }
    return true;
}

bool same_table(const std::vector<Interface>& a, const std::vector<Interface>& b) {
    return a.size() == b.size() && std::is_permutation(a.begin(), a.end(), b.begin());
}

// Builds the table under the roles key's lock; false when it could not be built.
bool read_table(std::vector<Interface>& interfaces) {
    const std::string roles_key(nk::kNetworkInterfacesKey);
    if (nk::setMgmt::lockKey(roles_key) < 0) {
        NK_LOG(nk::log::WARN, "Failed to lock {}, nkerrno: {}", roles_key, nk::errno_text(nkerrno));
        return false;
    }
    const bool built = read_roles(interfaces) && read_kernel_addresses(interfaces);
    if (nk::setMgmt::unlockKey(roles_key) < 0)
        NK_LOG(nk::log::WARN, "Failed to unlock {}, nkerrno: {}", roles_key,
               nk::errno_text(nkerrno));
    return built;
}

std::string join_pairs(const std::set<AddressPair>& pairs) {
    return fmt::format("{}", fmt::join(pairs, ","));
}

void set_config_key(const nk::path& key, const std::string& value) {
    if (nk::setMgmt::setKey(key, value) < 0)
        NK_LOG(nk::log::WARN, "{} setKey error, nkerrno: {}", key, nk::errno_text(nkerrno));
}

void publish_interface(const Interface& iface) {
    const nk::path base = kConfigKey / iface.name;
    set_config_key(base / "ipv4", join_pairs(iface.ipv4));
    set_config_key(base / "ipv6", join_pairs(iface.ipv6));
    set_config_key(base / "mac", iface.mac.to_string(false));
    set_config_key(base / "type", std::string(nk::netMgmt::type_name(iface.type)));
    set_config_key(base / "is_guest", iface.is_guest ? "true" : "false");
}

nk::macips_t box_macips(const std::vector<Interface>& interfaces) {
    nk::macips_t macips;
    for (const Interface& iface : interfaces) {
        if (!iface.mac.is_valid())
            continue;
        macips.add_mac(iface.mac);
        for (const auto& [ip, netmask] : iface.ipv4)
            macips.add_ip(iface.mac, ip);
        for (const auto& [ip, netmask] : iface.ipv6)
            macips.add_ip(iface.mac, ip);
    }
    return macips;
}

bool s_box_record_behind = false;  // main loop only

// The BOX's own record carries its MACs and IPs, so that lookups by address find the BOX.
bool store_box_macips(const std::string& box_id, const nk::macips_t& macips) {
    std::optional<Device> box = load_device_from_storage(box_id);
    if (!box) {
        box.emplace();
        box->cloud.device_id = box_id;
    }
    if (box->local.macips == macips)
        return true;
    box->local.macips = macips;
    return write_device_to_storage(*box, true);
}

// Caller holds g_interfaces_mutex, so queries never see a half-built table.
bool publish_table(const std::vector<Interface>& interfaces, const std::string& box_id) {
    nk::setMgmt::deleteKey(kConfigKey);  // absent on the first publication
    g_interfaces.clear();
    for (const Interface& iface : interfaces) {
        publish_interface(iface);
        NK_LOG(nk::log::INFO, "Saved interface {}", iface);
        g_interfaces.push_back(iface);
    }
    // A table that cannot take the BOX's record does not hide the topology: the record is
    // written again at each later update until it is stored.
    s_box_record_behind = !store_box_macips(box_id, box_macips(g_interfaces));
    NK_LOG(nk::log::INFO, "Interfaces changed. Notifying listeners.");
    set_config_key(kConfigRefreshKey, "1");
    return true;
}

}  // namespace

bool nk::netMgmt::Interface::has_ip(const address& ip) const {
    if (!ip.is_v4_or_v6())
        return false;
    const auto& pairs = pairs_of_family(*this, ip);
    return std::any_of(pairs.begin(), pairs.end(),
                       [&ip](const AddressPair& pair) { return pair.first == ip; });
}

bool update_network_info(std::vector<Interface>& interfaces) {
    std::string box_id;
    // Without its own id the BOX has no record to keep its addresses in.
    if (nk::setMgmt::getKey(kBoxDeviceIdKey, box_id) < 0 || box_id.empty())
        return false;
    if (g_device_id != box_id)
        g_device_id = box_id;
    if (!read_table(interfaces))
        return false;
    std::lock_guard lock(g_interfaces_mutex);
    if (same_table(interfaces, g_interfaces)) {
        if (s_box_record_behind)
            s_box_record_behind = !store_box_macips(box_id, box_macips(g_interfaces));
        return false;
    }
    return publish_table(interfaces, box_id);
}

bool is_in_subnet(const std::string& text) {
    const address ip(text);
    if (!ip.is_v4_or_v6())
        return false;
    return any_interface([&ip](const Interface& iface) {
        return iface.type == nk::netMgmt::LAN && serves(iface, ip);
    });
}

bool is_in_guest(const address& ip) {
    if (!ip.is_v4_or_v6())
        return false;
    return any_interface([&ip](const Interface& iface) {
        return iface.type == nk::netMgmt::LAN && iface.is_guest && serves(iface, ip);
    });
}

bool is_wan(const std::string& name) {
    return any_interface([&name](const Interface& iface) {
        return iface.type == nk::netMgmt::WAN && iface.name == name;
    });
}

bool is_guest(const std::string& name) {
    return any_interface(
        [&name](const Interface& iface) { return iface.is_guest && iface.name == name; });
}

bool is_on_box(const std::string& text) {
    const macaddr mac(text);
    if (!mac.is_valid())
        return false;
    return any_interface([&mac](const Interface& iface) { return iface.mac == mac; });
}
