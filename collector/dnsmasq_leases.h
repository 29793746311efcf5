// dnsmasq's lease file: one DHCPv4 lease a line, then, after the server's "duid" line, one
// DHCPv6 lease a line.
#pragma once

#include <ctime>
#include <string_view>

#include "lease.h"

namespace nk::collector {

// Leases still valid at `now` (wall-clock seconds); expired ones are left out silently.
LeaseFile read_dnsmasq_leases(std::string_view text, std::time_t now);

// Whether the text looks like dnsmasq's: its first line is a lease or the "duid" line.
bool looks_like_dnsmasq(std::string_view text);

}  // namespace nk::collector
