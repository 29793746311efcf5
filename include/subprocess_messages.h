// The collector subprocess: its restart policy and the JSON lines it writes.
#pragma once

#include <jansson.h>

#include <memory>
#include <string>
#include <vector>

#include <nk/subprocess.h>

// The collector ("nkdevinfo"), made at start-up for the lease mode; null when the mode is
// neither 0 (the box's DHCP server) nor 1 (an external one).
std::unique_ptr<nk::Subprocess> make_collector(int leases_mode);

// The collector the main loop supervises.
extern std::unique_ptr<nk::Subprocess> g_subprocess;

// Restarts a collector that is down, unless the last interface update found no valid LAN
// interface, or it failed too often or started too recently. One the daemon stopped itself
// is started again at once.
void restart_subprocess();
// Stops the collector for a phase that has no use for it.
void stop_collector();
// What the last interface update found.
void set_lan_present(bool present);
// One JSON message a line: {"type": "leases" | "avahi" | "upnp" | "netbios", "data": {...}}.
// Lines that do not parse, lack either member or have another type are dropped.
void process_subprocess_messages(const std::vector<std::string>& lines);
