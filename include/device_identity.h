// Device identity on the bus: the id a MAC goes by (permanent, else temporary), the answers and
// announcements other daemons cache, and the real MAC behind a mangled one.
#pragma once

#include <cstdint>
#include <string>
#include <unordered_map>

#include "device.h"

// Temporary device ids by mac_key, for MACs the cloud has not registered yet.
extern std::unordered_map<std::string, std::string> g_temporary_device_ids;

// The device's id, else the MAC's temporary id, else a new temporary id.
std::string get_device_id(const macaddr& mac);
// Forgets every temporary id; numbering starts again at 1.
void forget_temporary_device_ids();
void send_device_id_response(const char* mac, const char* device_id, std::uint64_t request_id);
void send_permanent_device_id_message(const char* temp_device_id, const char* device_id);
// Tells every daemon to forget the device ids it cached (temporary ids restart).
void send_clear_device_id_cache_message();
// The real MAC behind a fake one the leases paired with this IP; else `mac` itself.
macaddr get_real_mac(const macaddr& mac, const address& ip);
