// Every case of a daemon test binary starts from the state the daemon starts with, whatever
// the case before it left behind, so that cases pass alone, in any order and repeated.
#include <gtest/gtest.h>

#include <limits>
#include <memory>

#include "daemon_state.h"
#include "device_identity.h"
#include "host_names.h"
#include "network_info.h"
#include "pending_devices.h"
#include "rotated_macs.h"
#include "storage_backlog.h"
#include "stored_answers.h"
#include "subprocess_messages.h"
#include "waiting_answers.h"

namespace {

template <typename T>
void clear_queue(std::vector<T>& queue, std::mutex& mutex) {
    const std::lock_guard lock(mutex);
    queue.clear();
}

template <typename Cache>
void clear_cache(Cache& cache, std::mutex& mutex) {
    const std::lock_guard lock(mutex);
    for (const auto& entry : cache.get([](const auto&) { return true; }))
        cache.remove(entry.first);
}

void reset_daemon_state() {
    g_devices.clear();
    g_pending_devices.clear();
    g_hostnames.clear();
    g_connect_device_times.clear();
    g_last_mac_purge = 0;
    forget_temporary_device_ids();
    g_device_id.clear();
    g_now = 0;
    set_leases_received(false);
    set_answering_while_waiting(false);
    close_device_id_wake();
    release_dhcp_results(std::numeric_limits<long>::max());
    release_user_agents(std::numeric_limits<long>::max());
    forget_stored_ids();
    g_storage_backlog = StorageBacklog();
    {
        const std::lock_guard lock(g_interfaces_mutex);
        g_interfaces.clear();
    }
    {
        const std::lock_guard lock(g_devices_loaded_mutex);
        g_local_devices_loaded = g_cloud_devices_loaded = g_device_removed_flag = false;
    }
    clear_queue(g_devid_requests, g_devid_requests_mutex);
    clear_queue(g_user_agents, g_user_agents_mutex);
    clear_queue(g_new_devices, g_new_devices_mutex);
    clear_queue(g_removed_devices, g_removed_devices_mutex);
    clear_queue(g_changed_devices, g_changed_devices_mutex);
    clear_queue(g_dhcp_results, g_dhcp_results_mutex);
    clear_queue(g_mangled_macs, g_mangled_macs_mutex);
    clear_cache(g_user_agent_cache, g_user_agent_cache_mutex);
    clear_cache(g_fingerprint_cache, g_fingerprint_cache_mutex);
}

class CleanState : public ::testing::EmptyTestEventListener {
    void OnTestStart(const ::testing::TestInfo&) override { reset_daemon_state(); }
};

// Registered before main: gtest takes ownership of the listener.
const bool registered = [] {
    ::testing::UnitTest::GetInstance()->listeners().Append(
        std::make_unique<CleanState>().release());
    return true;
}();

}  // namespace
