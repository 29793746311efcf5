#include "snapshot.h"

#include <jansson.h>

#include <algorithm>
#include <ctime>

#include <fmt/format.h>
#include <nk/json.h>

namespace nk::collector {

namespace {

using sockutl::address;
using sockutl::macaddr;

void add(Snapshot& s, const macaddr& mac, const address& ip, const std::string& host,
         const std::string& iface) {
    LeasedMac& leased = s.macs[mac];
    leased.ips.insert(ip);
    if (!host.empty())
        leased.host = host;
    if (leased.iface.empty())
        leased.iface = iface;
}

// A client identifier that is only hardware type 1 and the MAC changes with the MAC: it
// identifies nothing beyond it.
std::string stable_identity(const Lease& lease) {
    std::string identity = client_identity(lease.client_id);
    const auto& bytes = lease.mac.bytes();
    if (identity.size() == 7 && identity[0] == 1 &&
        std::equal(bytes.begin(), bytes.end(), identity.begin() + 1,
                   [](std::uint8_t b, char c) { return b == static_cast<std::uint8_t>(c); })) {
        return {};
    }
    return identity;
}

class LeasesBuilder {
public:
    LeasesBuilder(const std::vector<Neighbour>& neighbours, const LanInterfaces& lans,
                  ClientResolver& resolver)
        : neighbours_(neighbours), lans_(lans), resolver_(resolver) {}

    void add_v4(const Lease& lease) {
        const LanInterface* lan = lan_of(lease.ip);
        if (lan == nullptr || checking_.count(lease.mac) != 0)
            return;
        std::string why;
        const std::optional<macaddr> device = resolver_.device_of(lease.mac, why);
        if (!device) {
            checking_.insert(lease.mac);
            out_.skipped.push_back(std::move(why));
            return;
        }
        const macaddr reported = *device;
        if (reported != lease.mac)
            out_.mangled.push_back({reported, lease.mac, lease.ip});
        const std::string identity = stable_identity(lease);
        reported_as_[lease.mac] = reported;
        if (!identity.empty())
            by_identity_[identity] = reported;
        add(out_, reported, lease.ip, lease.host, lan->name);
    }

    void add_v6(const Lease& lease) {
        const LanInterface* lan = lan_of(lease.ip);
        if (lan == nullptr)
            return;
        const macaddr mac = mac_of_v6(lease);
        // Its client is being checked: it comes with the client's verdict.
        if (checking_.count(mac) != 0)
            return;
        if (!mac.is_valid()) {
            out_.skipped.push_back(fmt::format("no MAC known yet for the IPv6 lease {}", lease.ip));
            return;
        }
        add(out_, mac, lease.ip, lease.host, lan->name);
    }

    // The leased MACs' other IPv6 addresses: SLAAC ones and link-local ones.
    void add_neighbours() {
        for (const Neighbour& n : neighbours_) {
            if (!is_live(n) || !n.ip.is_v6() || interface_named(lans_, n.iface) == nullptr)
                continue;
            const macaddr mac = reported(n.mac);
            if (out_.macs.count(mac) != 0)
                add(out_, mac, n.ip, "", n.iface);
        }
    }

    Snapshot take() { return std::move(out_); }

private:
    const LanInterface* lan_of(const address& ip) {
        const LanInterface* lan = interface_of(lans_, ip);
        if (lan == nullptr)
            out_.skipped.push_back(fmt::format("no LAN or guest interface serves {}", ip));
        return lan;
    }

    macaddr reported(const macaddr& mac) const {
        const auto it = reported_as_.find(mac);
        return it == reported_as_.end() ? mac : it->second;
    }

    macaddr mac_of_v6(const Lease& lease) const {
        const auto it = by_identity_.find(client_identity(lease.client_id));
        if (it != by_identity_.end())
            return it->second;
        for (const Neighbour& n : neighbours_) {
            if (n.ip == lease.ip && n.mac.is_valid())
                return reported(n.mac);
        }
        // A DUID names the MAC it was made from, which need not be this interface's.
        return reported(duid_mac(lease.client_id));
    }

    const std::vector<Neighbour>& neighbours_;
    const LanInterfaces& lans_;
    ClientResolver& resolver_;
    std::set<macaddr> checking_;  // MACs whose device is not decided yet
    std::map<macaddr, macaddr> reported_as_;
    std::map<std::string, macaddr> by_identity_;
    Snapshot out_;
};

json_t* mangled_to_json(const std::vector<MangledMac>& mangled) {
    nk::json_ptr array(json_array());
    for (const MangledMac& m : mangled) {
        json_t* const pair =
            json_pack("{s:s,s:s,s:s}", "real_mac", m.real.to_string().c_str(), "fake_mac",
                      m.fake.to_string().c_str(), "ip", m.ip.to_string().c_str());
        if (pair == nullptr || json_array_append_new(array.get(), pair) != 0)
            return nullptr;
    }
    return array.release();
}

}  // namespace

Snapshot leases_snapshot(const std::vector<Lease>& leases, const std::vector<Neighbour>& neighbours,
                         const LanInterfaces& lans, ClientResolver& resolver,
                         const ClientEvidence& evidence) {
    const ClientResolver::View view{leases,
                                    neighbours,
                                    lans,
                                    evidence.events,
                                    evidence.mdns,
                                    ClientResolver::Clock::now(),
                                    std::time(nullptr)};
    resolver.begin(view);
    LeasesBuilder builder(neighbours, lans, resolver);
    // The DHCPv4 leases first: DHCPv6 ones are matched with their clients. New random MACs
    // last, so that they are weighed against every other client of this snapshot.
    std::vector<const Lease*> v4;
    for (const Lease& lease : leases) {
        if (lease.ip.is_v4())
            v4.push_back(&lease);
    }
    std::stable_partition(v4.begin(), v4.end(), [&](const Lease* lease) {
        return !is_locally_administered(lease->mac) || resolver.history().find(lease->mac);
    });
    for (const Lease* lease : v4)
        builder.add_v4(*lease);
    for (const Lease& lease : leases) {
        if (lease.ip.is_v6())
            builder.add_v6(lease);
    }
    builder.add_neighbours();
    resolver.end();
    return builder.take();
}

Snapshot neighbours_snapshot(const std::vector<Neighbour>& neighbours, const LanInterfaces& lans) {
    Snapshot out;
    for (const Neighbour& n : neighbours) {
        const LanInterface* lan = interface_named(lans, n.iface);
        // The bridge can list the BOX's own address, learnt back from a port.
        if (!is_live(n) || lan == nullptr || is_own_mac(lans, n.mac))
            continue;
        // An IPv4 neighbour outside the interface's subnets is no client of this LAN.
        if (n.ip.is_v4() && interface_of(lans, n.ip) != lan)
            continue;
        add(out, n.mac, n.ip, "", lan->name);
    }
    return out;
}

std::string leases_message(const Snapshot& snapshot) {
    nk::leases::leases_t table;
    for (const auto& [mac, leased] : snapshot.macs) {
        for (const address& ip : leased.ips)
            table.add_one(mac, ip, leased.host, leased.iface);
    }
    nk::json_ptr leases = table.to_json();
    nk::json_ptr mangled(mangled_to_json(snapshot.mangled));
    if (!leases || !mangled)
        return {};
    const nk::json_ptr message(json_pack("{s:s,s:{s:o,s:o}}", "type", "leases", "data", "leases",
                                         leases.release(), "mangled_macs", mangled.release()));
    return message ? nk::json_dump_compact(message.get()) : std::string();
}

}  // namespace nk::collector
