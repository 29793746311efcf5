// Submission of the service information gathered per device, and its periodic reset.
#pragma once

// Submits the gathered Avahi, UPnP and NetBIOS data; the submission timers call them.
void process_avahi_services();
void process_upnp_devices();
void process_netbios_devices();

// Kinds of service information a flush timer resets.
enum class ServiceInfoKind { Avahi, Upnp, Netbios };

// Moves every device's current set of that kind aside and clears its count and flag.
void reset_service_info(ServiceInfoKind kind);
