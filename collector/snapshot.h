// What the collector tells the daemon: one "leases" message with every LAN device it knows.
#pragma once

#include <map>
#include <set>
#include <string>
#include <vector>

#include "client_resolver.h"
#include "lan_interfaces.h"
#include "lease.h"
#include "lease_event_log.h"
#include "leases.h"
#include "mdns_names.h"
#include "neighbours.h"

namespace nk::collector {

// One MAC's addresses, host name (empty: none) and interface.
struct LeasedMac {
    std::set<sockutl::address> ips;
    std::string host;
    std::string iface;

    friend bool operator==(const LeasedMac& a, const LeasedMac& b) {
        return a.ips == b.ips && a.host == b.host && a.iface == b.iface;
    }
};

// A randomised MAC and the MAC its client came with, for one address.
struct MangledMac {
    sockutl::macaddr real;
    sockutl::macaddr fake;
    sockutl::address ip;

    friend bool operator==(const MangledMac& a, const MangledMac& b) {
        return a.real == b.real && a.fake == b.fake && a.ip == b.ip;
    }
};

struct Snapshot {
    std::map<sockutl::macaddr, LeasedMac> macs;
    std::vector<MangledMac> mangled;
    // Why leases were left out, one line each, for the log.
    std::vector<std::string> skipped;

    friend bool operator==(const Snapshot& a, const Snapshot& b) {
        return a.macs == b.macs && a.mangled == b.mangled;
    }
    friend bool operator!=(const Snapshot& a, const Snapshot& b) { return !(a == b); }
};

// What else tells who a client is, when the collector has it.
struct ClientEvidence {
    const LeaseEventLog* events = nullptr;  // the lease script's
    const MdnsNames* mdns = nullptr;
};

// From the DHCP server's leases: each on the LAN or guest interface whose subnet holds its
// address. A DHCPv6 lease joins the MAC of the client with the same identity, else of its
// address in the neighbour table, else the one in its DUID. Every leased MAC also gets its
// other IPv6 addresses from the neighbour table. A lease whose randomised MAC `resolver` finds
// to be an earlier device is reported under that device's MAC, and the pair in `mangled`; one
// it is still checking is left out.
Snapshot leases_snapshot(const std::vector<Lease>& leases, const std::vector<Neighbour>& neighbours,
                         const LanInterfaces& lans, ClientResolver& resolver,
                         const ClientEvidence& evidence = {});

// From the neighbour table alone, for a LAN served by another DHCP server: every live entry on a
// LAN or guest interface, without host names.
Snapshot neighbours_snapshot(const std::vector<Neighbour>& neighbours, const LanInterfaces& lans);

// {"type": "leases", "data": {"leases": [...], "mangled_macs": [...]}} on one line; empty on
// failure.
std::string leases_message(const Snapshot& snapshot);

}  // namespace nk::collector
