// Submission of fingerprints, user agents and service information to the cloud.
#pragma once

#include <string_view>

// Resends what failed before; the retry timer calls them.
void retry_user_agents();
void retry_fingerprints();

// Submits the gathered Avahi, UPnP and NetBIOS data; the submission timers call them.
void process_avahi_services();
void process_upnp_devices();
void process_netbios_devices();

// Kinds of service information a flush timer resets.
enum class ServiceInfoKind { Avahi, Upnp, Netbios };

// Moves every device's current set of that kind aside and clears its count and flag.
void reset_service_info(ServiceInfoKind kind);
