// ISC dhcpd's dhcpd.leases: a journal of "lease ADDRESS { ... }" blocks, the last block of an
// address stating its current binding.
#pragma once

#include <ctime>
#include <string_view>

#include "lease.h"

namespace nk::collector {

// The addresses whose last block is an active binding not ended at `now` (UTC seconds).
LeaseFile read_isc_leases(std::string_view text, std::time_t now);

// Whether the text holds an ISC lease journal's statements.
bool looks_like_isc(std::string_view text);

}  // namespace nk::collector
