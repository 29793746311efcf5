#include "client_resolver.h"

#include <algorithm>

#include <nk/log.h>

#include "host_names.h"

namespace nk::collector {

void ClientResolver::begin(const View& view) {
    view_ = &view;
    now_ = view.now;
    presence_.emplace(view.neighbours, view.leases, view.lans);
    index(view);
    wanted_.clear();
    deadline_.reset();
    for (auto it = probed_.begin(); it != probed_.end();)
        it = now_ - it->second >= max_wait_ ? probed_.erase(it) : std::next(it);
    for (auto it = first_seen_.begin(); it != first_seen_.end();) {
        const bool leased = std::any_of(view.leases.begin(), view.leases.end(),
                                        [&](const Lease& l) { return l.mac == it->first; });
        it = leased ? std::next(it) : first_seen_.erase(it);
    }
}

void ClientResolver::index(const View& view) {
    shown_.clear();
    std::map<sockutl::address, sockutl::macaddr> at;
    for (const Neighbour& n : view.neighbours) {
        if (n.mac.is_valid())
            at.emplace(n.ip, n.mac);
    }
    for (const Lease& lease : view.leases) {
        sockutl::macaddr mac = lease.mac;
        // A DHCPv6 lease is the MAC's that answers at its address, else the one the server
        // told the lease script.
        if (lease.ip.is_v6()) {
            const auto it = at.find(lease.ip);
            mac = it != at.end()           ? it->second
                  : view.events != nullptr ? view.events->mac_of_duid(lease.client_id)
                                           : sockutl::macaddr();
        }
        if (!mac.is_valid())
            continue;
        Shown& shown = shown_[mac];
        shown.ips.push_back(lease.ip);
        if (!lease.client_id.empty())
            shown.ids.push_back(lease.client_id);
        if (lease.ip.is_v4() && !lease.host.empty())
            shown.lease_host = lease.host;
    }
    for (const Neighbour& n : view.neighbours) {
        const auto it = shown_.find(n.mac);
        if (it != shown_.end())
            it->second.ips.push_back(n.ip);
    }
}

Sighting ClientResolver::sighting(const sockutl::macaddr& mac) const {
    Sighting s;
    s.mac = mac;
    const auto it = shown_.find(mac);
    const Shown none;
    const Shown& shown = it != shown_.end() ? it->second : none;
    s.ids = shown.ids;
    const ClientRequest* request =
        view_->events != nullptr ? view_->events->request_of(mac) : nullptr;
    if (request != nullptr) {
        if (!request->client_id.empty())
            s.ids.push_back(request->client_id);
        s.fingerprint = request->fingerprint;
    }
    // The name the client asked for; the lease's is the one the server gave it.
    s.host = distinctive_name(request != nullptr && !request->host.empty() ? request->host
                                                                           : shown.lease_host);
    for (const sockutl::address& ip : shown.ips) {
        if (s.mdns.empty() && view_->mdns != nullptr)
            s.mdns = distinctive_name(view_->mdns->name_of(ip));
    }
    s.request_pending = view_->events != nullptr && view_->events->active() && request == nullptr;
    return s;
}

ClientTraits ClientResolver::traits(const Sighting& s) const {
    ClientTraits t{{}, s.host, s.mdns, s.fingerprint};
    for (const std::string& id : s.ids) {
        // One made of this very MAC names it anyway.
        if (!id.empty() && mac_in_identifier(id) != s.mac)
            t.ids.push_back(client_identity(id));
    }
    return t;
}

Verdict ClientResolver::decide(const sockutl::macaddr& mac, Clock::time_point first) {
    Sighting s = sighting(mac);
    const bool late = now_ - first >= max_wait_;
    // Past the wait the fingerprint counts as unknown, and a MAC not shown gone as present.
    if (late)
        s.request_pending = false;
    std::vector<ProbeTarget> probes;
    const Verdict v = judge(s, history_, [&](const sockutl::macaddr& earlier) {
        const Presence p = presence_->since(earlier, first, probes);
        return late && p == Presence::Unknown ? Presence::Here : p;
    });
    if (v.kind == Verdict::Kind::Wait)
        wanted_.insert(wanted_.end(), probes.begin(), probes.end());
    return v;
}

void ClientResolver::note(const sockutl::macaddr& mac, const Verdict& v) const {
    if (v.kind == Verdict::Kind::Same)
        NK_LOG(nk::log::TRACE, "{} is {}: {:s}", mac, v.device, v.why);
    else if (v.kind == Verdict::Kind::New)
        NK_LOG(nk::log::TRACE, "{} is a device of its own: {:s}", mac, v.why);
}

std::optional<sockutl::macaddr> ClientResolver::device_of(const sockutl::macaddr& mac,
                                                          std::string& why) {
    if (const KnownClient* known = history_.find(mac)) {
        const sockutl::macaddr device = known->mac;
        ClientTraits learnt = traits(sighting(mac));
        // An earlier MAC's lease outlives the rotation: names and fingerprints come from the
        // newest MAC alone, so that two leases of one device do not rewrite them in turn.
        const sockutl::macaddr newest = known->aliases.empty() ? device : known->aliases.back();
        if (mac != newest)
            learnt = ClientTraits{learnt.ids, {}, {}, {}};
        history_.learn(device, learnt, view_->wall);
        return device;
    }
    if (!is_locally_administered(mac)) {
        // A new network card of a known client takes its identifiers over.
        history_.add(mac, view_->wall);
        history_.learn(mac, traits(sighting(mac)), view_->wall, true);
        return mac;
    }
    const Clock::time_point first = first_seen_.emplace(mac, now_).first->second;
    const Verdict v = decide(mac, first);
    if (v.kind == Verdict::Kind::Wait) {
        why = fmt::format("is {} a new MAC of an earlier device? {:s}", mac, v.why);
        const Clock::time_point due = first + max_wait_;
        deadline_ = deadline_ ? std::min(*deadline_, due) : due;
        return std::nullopt;
    }
    note(mac, v);
    first_seen_.erase(mac);
    const sockutl::macaddr device = v.kind == Verdict::Kind::Same ? v.device : mac;
    if (v.kind == Verdict::Kind::Same)
        history_.add_alias(device, mac);
    else
        history_.add(mac, view_->wall);
    history_.learn(device, traits(sighting(mac)), view_->wall);
    return device;
}

std::vector<ProbeTarget> ClientResolver::take_probes() {
    std::vector<ProbeTarget> out;
    for (const ProbeTarget& t : wanted_) {
        if (probed_.emplace(t, now_).second)
            out.push_back(t);
    }
    wanted_.clear();
    return out;
}

}  // namespace nk::collector
