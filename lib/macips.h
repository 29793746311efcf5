// A map from MAC addresses to the IP addresses seen for each.
#pragma once

#include <functional>
#include <unordered_map>
#include <unordered_set>

#include <nk/sockutl.h>

namespace nk {

struct mac_validator {
    bool operator()(const sockutl::macaddr& mac) const { return mac.is_valid(); }
};

struct ip_hasher {
    std::size_t operator()(const sockutl::address& ip) const { return ip.hash(false); }
};

using ip_set = std::unordered_set<sockutl::address, ip_hasher>;

template <typename Mac, typename Validator>
class generic_macips {
public:
    using mac_set = std::unordered_set<Mac>;
    using ip_map = std::unordered_map<Mac, ip_set>;

    bool add_mac(const Mac& mac) {
        if (!validator(mac) || macs.count(mac) != 0)
            return false;
        macs.insert(mac);
        ips.emplace(mac, ip_set{});
        return true;
    }

    bool add_ip(const Mac& mac, const sockutl::address& ip) {
        if (!validator(mac) || !ip.is_v4_or_v6())
            return false;
        macs.insert(mac);
        return ips[mac].insert(ip).second;
    }

    // Forgets the MAC's addresses; the MAC itself stays known.
    bool clear_mac(const Mac& mac) {
        const auto it = ips.find(mac);
        if (it == ips.end())
            return false;
        it->second.clear();
        return true;
    }

    // Removes the MAC altogether.
    bool del_mac(const Mac& mac) {
        ips.erase(mac);
        return macs.erase(mac) != 0;
    }

    void clear() {
        macs.clear();
        ips.clear();
    }

    bool has_mac(const Mac& mac) const { return macs.count(mac) != 0; }

    template <typename Pred>
    ip_set filter_ips(const Mac& mac, Pred pred) const {
        ip_set out;
        const auto it = ips.find(mac);
        if (it == ips.end())
            return out;
        for (const sockutl::address& ip : it->second) {
            if (pred(ip))
                out.insert(ip);
        }
        return out;
    }

    // Every IPv4 address, and the IPv6 ones unless link-local and not asked for.
    ip_set get_ips(const Mac& mac, bool include_link_local) const {
        return filter_ips(mac, [include_link_local](const sockutl::address& ip) {
            return ip.is_v4() || include_link_local || !ip.is_link_local();
        });
    }

    ip_set ips6(const Mac& mac, bool include_link_local) const {
        return filter_ips(mac, [include_link_local](const sockutl::address& ip) {
            return ip.is_v6() && (include_link_local || !ip.is_link_local());
        });
    }

    ip_set ipll(const Mac& mac) const {
        return filter_ips(
            mac, [](const sockutl::address& ip) { return ip.is_v6() && ip.is_link_local(); });
    }

    friend bool operator==(const generic_macips& a, const generic_macips& b) {
        if (a.macs.size() != b.macs.size())
            return false;
        for (const Mac& mac : a.macs) {
            if (b.macs.count(mac) == 0)
                return false;
        }
        return a.ips == b.ips;
    }
    friend bool operator!=(const generic_macips& a, const generic_macips& b) { return !(a == b); }

    Validator validator;
    mac_set macs;
    ip_map ips;
};

using macips_t = generic_macips<sockutl::macaddr, mac_validator>;

}  // namespace nk
