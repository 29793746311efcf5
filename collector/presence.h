// Whether a client's MAC has been on the LAN since a given moment, as far as the BOX can tell:
// a neighbour entry of it confirmed since then says it is; an address it might still answer at
// (its lease, a live neighbour entry) that has not been seen failing since leaves it unknown
// until the kernel has probed it.
#pragma once

#include <chrono>
#include <map>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <nk/sockutl.h>

#include "lan_interfaces.h"
#include "lease.h"
#include "neighbours.h"

namespace nk::collector {

enum class Presence { Gone, Here, Unknown };

// An address to check a MAC at.
struct ProbeTarget {
    std::string iface;
    sockutl::address ip;
    sockutl::macaddr mac;

    friend bool operator<(const ProbeTarget& a, const ProbeTarget& b) {
        return std::tie(a.iface, a.ip, a.mac) < std::tie(b.iface, b.ip, b.mac);
    }
};

class PresenceCheck {
public:
    using Clock = std::chrono::steady_clock;

    // At most this many addresses of one MAC are probed.
    static constexpr std::size_t kMaxTargets = 8;

    PresenceCheck(const std::vector<Neighbour>& neighbours, const std::vector<Lease>& leases,
                  const LanInterfaces& lans);

    // Unknown adds the addresses still to check to `probes`.
    Presence since(const sockutl::macaddr& mac, Clock::time_point since,
                   std::vector<ProbeTarget>& probes) const;

private:
    // Whether nobody, or another client, answered at the address since then.
    bool settled(const ProbeTarget& target, Clock::time_point since) const;

    const std::vector<Neighbour>& neighbours_;
    const std::vector<Lease>& leases_;
    const LanInterfaces& lans_;
    std::map<std::pair<std::string, sockutl::address>, const Neighbour*> by_address_;
};

}  // namespace nk::collector
