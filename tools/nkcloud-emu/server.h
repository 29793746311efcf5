// The emulated cloud connector on the bus: answers the box_mgmt commands from the database.
#pragma once

#include <vector>

#include "cloud_db.h"
#include "fault.h"

namespace nkemu {

// The settings key where the connector publishes the BOX's own device id.
inline constexpr const char* kBoxDeviceIdKey = "/daemons/nkcloudd/device_id";

// Registers the BOX (once per database), publishes its id in the settings store, then answers
// requests until `stop_fd` becomes readable. `faults` apply before those stored in the
// database. Returns the process's exit status.
int serve(CloudDb& db, int stop_fd, std::vector<Fault> faults);

}  // namespace nkemu
