// The MAC a client had before it took a random one. A phone that rotates its MAC sends its DHCP
// messages under the new MAC before any lease shows it, so before the collector can say whose
// it is; taken as they come, its fingerprint and host name would go to a temporary id spent on
// a device that does not exist.
#pragma once

#include <vector>

#include "device.h"
#include "dhcp.h"

// The earlier MAC the collector found behind `mac`, at any address; else `mac`.
macaddr real_mac_of(const macaddr& mac);

bool is_locally_administered(const macaddr& mac);

// A result of a random MAC that nothing explains yet waits, at most kDhcpWait seconds, for the
// leases that may; false when it is not such a result or too many wait already.
inline constexpr long kDhcpWait = 30;
inline constexpr std::size_t kMaxWaitingDhcpResults = 64;
bool hold_dhcp_result(const nk::DhcpResult& result, long now);
// The same for a user agent: a phone browses as soon as it has an address, before the collector
// has decided what its new MAC is.
bool hold_user_agent(const UserAgent& agent, long now);
// The held results whose MAC is explained or known now, or that waited long enough; each with
// the MAC it is to be taken under.
std::vector<nk::DhcpResult> release_dhcp_results(long now);
std::vector<UserAgent> release_user_agents(long now);
// DHCP results and user agents waiting.
std::size_t held_dhcp_results();
