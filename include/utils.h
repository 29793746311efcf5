// Device identity on the bus, ignored MACs, pending devices, host names and user agents.
#pragma once

#include <cstdint>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "device.h"

// Temporary device ids by mac_key, for MACs the cloud has not registered yet.
extern std::unordered_map<std::string, std::string> g_temporary_device_ids;
// Devices seen on the bus but not yet in the inventory.
extern std::vector<Device> g_pending_devices;
// The host name last reported for each MAC by the leases.
extern std::unordered_map<macaddr, std::string> g_hostnames;

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

std::unordered_set<std::string> discovery_ignored_macs();
void save_pending_device(const std::string& local_id, const macaddr& mac, const address& ip);
std::string get_hostname(const macaddr& mac);
void save_user_agent(const std::string& ip, const std::string& mac, const std::string& user_agent);
int str_rtrim(char* str);
