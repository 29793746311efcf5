// The collector's mDNS, UPnP and NetBIOS reports, gathered per device until they are submitted.
#pragma once

#include <jansson.h>

// What the scanners saw of a LAN host, gathered for the device holding its address.
void process_avahi_data(const json_t* data);
void process_upnp_data(const json_t* data);
void process_netbios_data(const json_t* data);
