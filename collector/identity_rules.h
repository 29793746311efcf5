// Which earlier device a client that shows a new MAC is. A wrong merge hands one person's device
// id to another's phone, a wrong split only makes one device two: so a new MAC is an earlier
// device only when
//   - it is locally administered (randomised); a universal MAC is a network card of its own;
//   - evidence names that device, and none names another:
//       a client identifier or DUID the device came with (not one made of the new MAC),
//       an identifier or DUID made of one of the device's MACs (type 1, DUID-LL, DUID-LLT),
//       its distinctive host name (see host_names.h) with the same DHCP fingerprint,
//       its distinctive mDNS host name with the same DHCP fingerprint;
//   - their DHCP fingerprints, where both are known, are the same;
//   - none of the device's MACs has been on the LAN since the new one came.
// docs/collector.md explains each rule.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include <nk/sockutl.h>

#include "client_history.h"
#include "dhcp_fingerprint.h"
#include "presence.h"

namespace nk::collector {

// What the BOX knows of a MAC it has not reported yet.
struct Sighting {
    sockutl::macaddr mac;
    std::vector<std::string> ids;  // its DHCPv4 client identifier and DHCPv6 DUIDs, raw bytes
    std::string host;              // distinctive forms (host_names.h), empty when none
    std::string mdns;
    DhcpFingerprint fingerprint;
    bool request_pending = false;  // the lease script has not told its DHCP request yet
};

struct Verdict {
    enum class Kind {
        New,   // a device of its own
        Same,  // the device reported under `device`
        Wait,  // not yet: an earlier MAC is being checked, or its request is on its way
    };
    Kind kind = Kind::New;
    sockutl::macaddr device;
    std::string why;  // the evidence, or what stood in the way
};

// Whether a MAC has been on the LAN since the new one came.
using PresenceOf = std::function<Presence(const sockutl::macaddr&)>;

Verdict judge(const Sighting& sighting, const ClientHistory& history, const PresenceOf& presence);

// The MAC an identifier is made of: a type 1 client identifier, a DUID-LL or DUID-LLT, bare or
// in an RFC 4361 identifier. Invalid for the others.
sockutl::macaddr mac_in_identifier(const std::string& id);

}  // namespace nk::collector
