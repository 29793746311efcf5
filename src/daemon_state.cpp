#include "daemon_state.h"

#include <algorithm>

#include <nk/featureutl.h>
#include <nk/log.h>
#include <nk/nkerrno.h>

namespace {

bool g_leases_received = false;

constexpr const char* kDiscoveryKeys = "/daemons/nkdevicediscovery";
constexpr const char* kCloudKeys = "/daemons/nkcloudd";

int read_tunable(const nk::path& key, int def) {
    return nk::setMgmt::getKeyValue(key.str(), def);
}

// The subprocess entries are named after the last piece of their keys.
void read_named_tunable(std::string_view name, int def) {
    g_retry_interval[name] = read_tunable(nk::path(kDiscoveryKeys) / name, def);
}

void read_retry_intervals() {
    g_retry_interval.clear();
    g_retry_interval["default"] = read_tunable(nk::path(kDiscoveryKeys) / "retry_interval", 5);
    // A cloud connection is retried no sooner than the longer neighbour expiry.
    const int expiry_v4 = read_tunable(g_neigh_expiry_time_key, 180);
    const int expiry_v6 = read_tunable(g_neigh_expiry_time_v6_key, 120);
    g_retry_interval["add_device_to_cloud"] = std::max(expiry_v4, expiry_v6);
    g_retry_interval["update_box_detected_name"] =
        read_tunable(nk::path(kCloudKeys) / "retry_interval" / "update_name", 180);
    g_retry_interval["send_onbox_to_cloud"] = 30;
    read_named_tunable("subprocess_respawn_frequency", 10);
    read_named_tunable("subprocess_respawn_threshold", 3600);
    read_named_tunable("subprocess_respawn_retries", 5);
}

void read_cache_tunables() {
    const nk::path base(kDiscoveryKeys);
    g_avahi_flush_interval = read_tunable(base / "avahi_flush_interval", 28800);
    g_avahi_submission_interval = read_tunable(base / "avahi_submission_interval", 600);
    g_avahi_max_cache_size = read_tunable(base / "avahi_max_cache_size", 10);
    g_upnp_flush_interval = read_tunable(base / "upnp_flush_interval", 28800);
    g_upnp_submission_interval = read_tunable(base / "upnp_submission_interval", 600);
    g_upnp_max_cache_size = read_tunable(base / "upnp_max_cache_size", 10);
    g_netbios_flush_interval = read_tunable(base / "netbios_flush_interval", 28800);
    g_netbios_submission_interval = read_tunable(base / "netbios_submission_interval", 600);
    g_netbios_max_cache_size = read_tunable(base / "netbios_max_cache_size", 10);
    g_sync_retry_interval = read_tunable(base / "sync_retry_interval", 600);
    g_sync_poll_interval = read_tunable(base / "sync_poll_interval", 60);
}

}  // namespace

std::unordered_map<std::string_view, int> g_retry_interval;

int g_avahi_flush_interval = 0;
int g_avahi_submission_interval = 0;
int g_avahi_max_cache_size = 0;
int g_upnp_flush_interval = 0;
int g_upnp_submission_interval = 0;
int g_upnp_max_cache_size = 0;
int g_netbios_flush_interval = 0;
int g_netbios_submission_interval = 0;
int g_netbios_max_cache_size = 0;
int g_sync_retry_interval = 0;
int g_sync_poll_interval = 0;

const nk::path g_neigh_expiry_time_key("/daemons/nkdevicediscovery/neigh_expiry_time");
const nk::path g_neigh_expiry_time_v6_key("/daemons/nkdevicediscovery/neigh_expiry_time_v6");

std::atomic<bool> g_feature_additional_info{false};
std::atomic<bool> g_feature_onbox_status{false};

const std::vector<std::string> g_cloud_fields = {"device_os",
                                                 "device_os_version",
                                                 "device_type",
                                                 "device_model",
                                                 "macs",
                                                 "apps",
                                                 "box_detected_name",
                                                 "device_detection_name",
                                                 "display_name",
                                                 "traffic",
                                                 "mac_vendor",
                                                 "profile_id",
                                                 "scan_level",
                                                 "friendly_name",
                                                 "upnp_enabled",
                                                 "box_device_id",
                                                 "onbox",
                                                 "created"};
const std::vector<std::string> g_additional_cloud_fields = {"box_detected_name_history"};

std::string g_device_id;
std::optional<nk::time::Timer> g_device_info_sync_timer;
std::map<nk::sockutl::macaddr, long> g_connect_device_times;
long g_last_mac_purge = 0;

std::vector<DeviceIdRequest> g_devid_requests;
std::mutex g_devid_requests_mutex;
std::vector<UserAgent> g_user_agents;
std::mutex g_user_agents_mutex;
std::vector<std::string> g_new_devices;
std::mutex g_new_devices_mutex;
std::vector<std::string> g_removed_devices;
std::mutex g_removed_devices_mutex;
std::vector<ChangedInfo> g_changed_devices;
std::mutex g_changed_devices_mutex;
std::vector<nk::DhcpResult> g_dhcp_results;
std::mutex g_dhcp_results_mutex;
std::vector<nk::leases::v4::mangled_mac_t> g_mangled_macs;
std::mutex g_mangled_macs_mutex;

nk::Cache<nk::sockutl::macaddr, nk::AdditionalInfo<std::string>> g_user_agent_cache(1024, 120);
std::mutex g_user_agent_cache_mutex;
nk::Cache<nk::sockutl::macaddr, nk::AdditionalInfo<nk::DhcpFingerprint>> g_fingerprint_cache(1024,
                                                                                             120);
std::mutex g_fingerprint_cache_mutex;

nkex_handle* g_nkex = nullptr;

std::mutex g_devices_loaded_mutex;
bool g_local_devices_loaded = false;
bool g_cloud_devices_loaded = false;
bool g_device_removed_flag = false;

int g_event_pipe[2] = {-1, -1};
long g_now = 0;
int g_nkleases_mode = 0;

bool init_globals() {
    read_retry_intervals();
    read_cache_tunables();
    // The BOX registers itself through the cloud connector; until then the id is empty.
    std::string box_id;
    if (nk::setMgmt::getKey(std::string(kCloudKeys) + "/device_id", box_id) == 0) {
        g_device_id = box_id;
    }
    g_feature_additional_info = nk::featureutl::get_feature(0) == 0;
    g_feature_onbox_status = nk::featureutl::get_feature(1) == 0;

    g_device_info_sync_timer = nk::time::Timer::make(nk::time::TIMER_OWNED);
    if (!g_device_info_sync_timer) {
        NK_LOG(nk::log::ERROR, "Failed to create device info sync timer");
        return false;
    }
    return true;
}

bool uninit_globals() {
    g_device_info_sync_timer.reset();
    g_retry_interval.clear();
    return true;
}

void handle_feature_change(int feature) {
    const int value = nk::featureutl::get_feature(feature);
    NK_LOG(nk::log::INFO, "Feature {} changed to {}", feature, value);
    if (feature == 0) {
        g_feature_additional_info = value == 0;
    } else if (feature == 1) {
        g_feature_onbox_status = value == 0;
    }
}

void purge_old_mac_timestamps() {
    constexpr long kPurgeEvery = 4;
    constexpr long kMaxAge = 600;
    if (g_now - g_last_mac_purge <= kPurgeEvery)
        return;
    g_last_mac_purge = g_now;
    for (auto it = g_connect_device_times.begin(); it != g_connect_device_times.end();) {
        if (g_now - it->second > kMaxAge)
            it = g_connect_device_times.erase(it);
        else
            ++it;
    }
}

bool leases_received() {
    return g_leases_received;
}

void set_leases_received(bool received) {
    g_leases_received = received;
}
