// The collector's lease snapshots applied to the inventory.
#pragma once

#include <jansson.h>

// A lease snapshot: registers new MACs, updates changed addresses and host names, takes MACs
// without a lease offline and reports every device's onbox state.
void process_leases(const json_t* data);
