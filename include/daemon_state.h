// Process-wide tunables and shared state of the daemon.
#pragma once

#include <atomic>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include <nk/nkex.h>
#include <nk/setmgmt.h>
#include <nk/sockutl.h>
#include <nk/timer.h>

#include "cache.h"
#include "device.h"
#include "dhcp.h"
#include "leases.h"

// Retry intervals in seconds by caller name ("default", "add_device_to_cloud", ...).
extern std::unordered_map<std::string_view, int> g_retry_interval;

extern int g_avahi_flush_interval;
extern int g_avahi_submission_interval;
extern int g_avahi_max_cache_size;
extern int g_upnp_flush_interval;
extern int g_upnp_submission_interval;
extern int g_upnp_max_cache_size;
extern int g_netbios_flush_interval;
extern int g_netbios_submission_interval;
extern int g_netbios_max_cache_size;
extern int g_sync_retry_interval;
extern int g_sync_poll_interval;

// The settings keys of the two neighbour expiry times, for modules that read them again.
extern const nk::path g_neigh_expiry_time_key;
extern const nk::path g_neigh_expiry_time_v6_key;

// Feature 0 and feature 1 of the feature library; true when the feature reads 0.
extern std::atomic<bool> g_feature_additional_info;
extern std::atomic<bool> g_feature_onbox_status;

// Field names asked of the cloud for every device, and the extra ones of a field refresh.
extern const std::vector<std::string> g_cloud_fields;
extern const std::vector<std::string> g_additional_cloud_fields;

extern std::string g_device_id;  // the BOX's own cloud device id
extern std::optional<nk::time::Timer> g_device_info_sync_timer;
extern std::map<nk::sockutl::macaddr, long> g_connect_device_times;
// Forgets connect_device attempts old enough to be retried; gates itself to every 5 s.
void purge_old_mac_timestamps();
extern long g_last_mac_purge;  // g_now at the last purge

// Queues filled on the bus thread and drained by the main loop, each under its own mutex.
extern std::vector<DeviceIdRequest> g_devid_requests;
extern std::mutex g_devid_requests_mutex;
extern std::vector<UserAgent> g_user_agents;
extern std::mutex g_user_agents_mutex;
extern std::vector<std::string> g_new_devices;
extern std::mutex g_new_devices_mutex;
extern std::vector<std::string> g_removed_devices;
extern std::mutex g_removed_devices_mutex;
extern std::vector<ChangedInfo> g_changed_devices;
extern std::mutex g_changed_devices_mutex;
extern std::vector<nk::DhcpResult> g_dhcp_results;
extern std::mutex g_dhcp_results_mutex;
extern std::vector<nk::leases::v4::mangled_mac_t> g_mangled_macs;
extern std::mutex g_mangled_macs_mutex;

// What additional info was submitted per MAC, and how each submission went. The outer mutex
// makes compound sequences atomic and is always taken before the cache's own lock.
extern nk::Cache<nk::sockutl::macaddr, nk::AdditionalInfo<std::string>> g_user_agent_cache;
extern std::mutex g_user_agent_cache_mutex;
extern nk::Cache<nk::sockutl::macaddr, nk::AdditionalInfo<nk::DhcpFingerprint>> g_fingerprint_cache;
extern std::mutex g_fingerprint_cache_mutex;

extern nkex_handle* g_nkex;

extern std::mutex g_devices_loaded_mutex;
extern bool g_local_devices_loaded;
extern bool g_cloud_devices_loaded;
extern bool g_device_removed_flag;

extern int g_event_pipe[2];  // [0] read end in the loop, [1] written by the bus handlers
extern long g_now;           // monotonic seconds, set once per loop turn
extern int g_nkleases_mode;

// Set once the first lease message was processed; device-id requests and user agents wait
// for it.
bool leases_received();
void set_leases_received(bool received);

// Reads every tunable once, sets the feature flags and makes the device-info sync timer.
bool init_globals();
bool uninit_globals();
void handle_feature_change(int feature);
