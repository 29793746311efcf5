#include "presence.h"

#include <linux/neighbour.h>

#include <algorithm>

namespace nk::collector {

namespace {

constexpr std::uint16_t kMayAnswer = NUD_REACHABLE | NUD_STALE | NUD_DELAY | NUD_PROBE;
constexpr std::uint16_t kNoAnswer = NUD_FAILED | NUD_INCOMPLETE;

}  // namespace

PresenceCheck::PresenceCheck(const std::vector<Neighbour>& neighbours,
                             const std::vector<Lease>& leases, const LanInterfaces& lans)
    : neighbours_(neighbours), leases_(leases), lans_(lans) {
    for (const Neighbour& n : neighbours_)
        by_address_[{n.iface, n.ip}] = &n;
}

bool PresenceCheck::settled(const ProbeTarget& target, Clock::time_point since) const {
    const auto it = by_address_.find({target.iface, target.ip});
    if (it == by_address_.end())
        return false;
    const Neighbour& n = *it->second;
    if ((n.state & kNoAnswer) != 0)
        return n.updated >= since;
    return (n.state & kMayAnswer) != 0 && n.mac.is_valid() && n.mac != target.mac;
}

Presence PresenceCheck::since(const sockutl::macaddr& mac, Clock::time_point since,
                              std::vector<ProbeTarget>& probes) const {
    std::vector<ProbeTarget> targets;
    const auto add = [&](const std::string& iface, const sockutl::address& ip) {
        const ProbeTarget target{iface, ip, mac};
        if (targets.size() < kMaxTargets &&
            std::find_if(targets.begin(), targets.end(), [&](const ProbeTarget& t) {
                return t.iface == iface && t.ip == ip;
            }) == targets.end()) {
            targets.push_back(target);
        }
    };
    for (const Neighbour& n : neighbours_) {
        if (n.mac != mac || interface_named(lans_, n.iface) == nullptr)
            continue;
        if ((n.state & NUD_REACHABLE) != 0 && n.confirmed >= since)
            return Presence::Here;
        if ((n.state & kMayAnswer) != 0)
            add(n.iface, n.ip);
    }
    for (const Lease& lease : leases_) {
        if (lease.mac != mac || !lease.ip.is_v4())
            continue;
        if (const LanInterface* lan = interface_of(lans_, lease.ip))
            add(lan->name, lease.ip);
    }
    std::size_t pending = 0;
    for (const ProbeTarget& target : targets) {
        if (!settled(target, since)) {
            probes.push_back(target);
            ++pending;
        }
    }
    return pending == 0 ? Presence::Gone : Presence::Unknown;
}

}  // namespace nk::collector
