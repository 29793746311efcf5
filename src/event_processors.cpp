#include "event_processors.h"

#include <unistd.h>

#include <algorithm>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include <nk/log.h>

#include "additional_info.h"
#include "daemon_state.h"
#include "device.h"
#include "device_id_answers.h"
#include "device_identity.h"
#include "device_storage.h"
#include "host_names.h"
#include "network_info.h"
#include "pending_devices.h"
#include "rotated_macs.h"
#include "waiting_answers.h"

namespace {

// The whole queue, leaving it empty: producers never wait for what the batch does.
template <typename T>
std::vector<T> take_queue(std::vector<T>& queue, std::mutex& mutex) {
    std::vector<T> batch;
    const std::lock_guard lock(mutex);
    batch.swap(queue);
    return batch;
}

template <typename T>
bool cached(const nk::Cache<macaddr, nk::AdditionalInfo<T>>& cache, std::mutex& mutex,
            const macaddr& mac, const T& info) {
    const std::lock_guard lock(mutex);
    return cache.exists(mac, nk::AdditionalInfo<T>{info});
}

void take_user_agent(const UserAgent& agent) {
    // A rotated phone browses from addresses its lease does not name (SLAAC): its MAC decides.
    macaddr mac = get_real_mac(agent.mac, agent.ip);
    if (mac == agent.mac)
        mac = real_mac_of(agent.mac);
    const std::string device_id = get_device_id(mac);
    NK_LOG(nk::log::DEBUG, "mac={}, device_id={:s}", mac, device_id);
    if (is_temporary(device_id))
        save_pending_device(device_id, mac, agent.ip);
    if (cached(g_user_agent_cache, g_user_agent_cache_mutex, mac, agent.user_agent)) {
        NK_LOG(nk::log::DEBUG, "User agent \"{:s}\" already in cache for device_id {:s}, mac {}",
               agent.user_agent, device_id, mac);
        return;
    }
    send_user_agent(mac, agent.user_agent);
}

// An unexplained random MAC waits for the leases that may name its device.
void handle_user_agent(const UserAgent& agent) {
    if (get_real_mac(agent.mac, agent.ip) == agent.mac && real_mac_of(agent.mac) == agent.mac &&
        hold_user_agent(agent, g_now))
        return;
    take_user_agent(agent);
}

void update_detected_name(const macaddr& mac, const std::string& hostname) {
    g_hostnames[mac] = hostname;
    Device* const device = find_device_by_mac(mac);
    if (device == nullptr || !device->lock_device_key())
        return;
    device->update_box_detected_name(hostname);
    device->unlock_device_key();
}

void take_dhcp_result(const nk::DhcpResult& result) {
    if (!result.hostname.empty())
        update_detected_name(result.mac, result.hostname);
    const nk::DhcpFingerprint& fingerprint = result.fingerprint;
    if (!g_feature_additional_info ||
        (fingerprint.option_list.empty() && fingerprint.vendor_class.empty())) {
        return;
    }
    const std::string device_id = get_device_id(result.mac);
    NK_LOG(nk::log::DEBUG, "mac={}, device_id={:s}", result.mac, device_id);
    if (cached(g_fingerprint_cache, g_fingerprint_cache_mutex, result.mac, fingerprint)) {
        NK_LOG(nk::log::DEBUG, "Fingerprint \"{}\" already in cache for device_id {:s}, mac {}",
               fingerprint, device_id, result.mac);
        return;
    }
    send_dhcp_fingerprint(result.mac, fingerprint);
}

// Under the MAC the client had before it took a random one; an unexplained random MAC waits for
// the leases that may explain it.
void handle_dhcp_result(nk::DhcpResult result) {
    const macaddr real = real_mac_of(result.mac);
    if (real != result.mac) {
        NK_LOG(nk::log::DEBUG, "DHCP message of {} taken under its earlier MAC {}", result.mac,
               real);
        result.mac = real;
    } else if (hold_dhcp_result(result, g_now)) {
        return;
    }
    take_dhcp_result(result);
}

template <typename Cache>
void forget_macs(const std::vector<macaddr>& macs, Cache& cache, std::mutex& mutex) {
    const std::lock_guard lock(mutex);
    for (const macaddr& mac : macs)
        cache.remove(mac);
}

void remove_device(const std::string& device_id) {
    NK_LOG(nk::log::INFO, "Processing removed device {:s}", device_id);
    const auto it = std::find_if(g_devices.begin(), g_devices.end(), [&device_id](const Device& d) {
        return d.cloud.device_id == device_id;
    });
    if (it == g_devices.end()) {
        NK_LOG(nk::log::WARN, "removed device not in local list: {:s}", device_id);
        return;
    }
    remove_device_from_storage(*it);
    // What was cached for these MACs must not hold back a later device that has one of them.
    std::vector<macaddr> cloud_macs;
    for (const auto& [key, mac] : it->cloud.macs)
        cloud_macs.push_back(mac);
    forget_macs(cloud_macs, g_user_agent_cache, g_user_agent_cache_mutex);
    forget_macs(cloud_macs, g_fingerprint_cache, g_fingerprint_cache_mutex);
    // Registering them again at once would bring back the device just removed.
    for (const macaddr& mac : it->local.macips.macs)
        g_connect_device_times[mac] = g_now;
    g_devices.erase(it);
}

void add_cloud_device(const std::string& device_id) {
    NK_LOG(nk::log::INFO, "Processing new device {:s}", device_id);
    if (find_device_by_dev_id(device_id) != nullptr)
        return;
    Device device;
    device.cloud.device_id = device_id;
    device.local.device_id = device_id;
    if (!device.lock_device_key())
        return;
    // Stored first, so that the refresh writes each field under an existing device key.
    write_device_to_storage(device, true);
    if (!device.update_device_fields_from_cloud(g_cloud_fields, true)) {
        remove_device_from_storage(device);
        device.unlock_device_key();
        return;
    }
    // Unlocked as the inventory's copy: the confirmations it runs find the device listed.
    g_devices.push_back(std::move(device));
    g_devices.back().unlock_device_key();
}

void refresh_changed_device(const ChangedInfo& changed) {
    Device* const device = find_device_by_dev_id(changed.device_id);
    if (device == nullptr) {
        NK_LOG(nk::log::WARN, "changed device not in local list: {:s}", changed.device_id);
        return;
    }
    if (!device->lock_device_key())
        return;
    if (device->update_device_fields_from_cloud(changed.fields, changed.is_additional))
        device->info_sync_pending = 0;
    device->unlock_device_key();
}

void register_pending_device(Device& device) {
    if (device.cloud.macs.empty())
        return;
    const macaddr mac = device.cloud.macs.begin()->second;
    if (find_device_by_mac(mac) != nullptr)
        return;  // registered meanwhile
    NK_LOG(nk::log::DEBUG, "Creating device for mac {}", mac);
    const nk::ip_set ips = device.local.macips.get_ips(mac, true);
    const bool guest = std::any_of(ips.begin(), ips.end(), is_in_guest);
    device.connect_device(guest ? 1 : 0);
    // A failed registration drops the device: its next sighting queues it again.
    if (!device.cloud.device_id.empty())
        g_devices.push_back(std::move(device));
}

}  // namespace

void process_sifter_user_agents() {
    for (const UserAgent& agent : release_user_agents(g_now))
        take_user_agent(agent);
    for (const UserAgent& agent : take_queue(g_user_agents, g_user_agents_mutex))
        handle_user_agent(agent);
}

void process_dhcp_results() {
    for (const nk::DhcpResult& result : release_dhcp_results(g_now))
        take_dhcp_result(result);
    for (const nk::DhcpResult& result : take_queue(g_dhcp_results, g_dhcp_results_mutex))
        handle_dhcp_result(result);
}

void process_removed_devices() {
    for (const std::string& device_id : take_queue(g_removed_devices, g_removed_devices_mutex))
        remove_device(device_id);
}

void process_new_devices() {
    for (const std::string& device_id : take_queue(g_new_devices, g_new_devices_mutex))
        add_cloud_device(device_id);
}

void process_changed_devices() {
    for (const ChangedInfo& changed : take_queue(g_changed_devices, g_changed_devices_mutex))
        refresh_changed_device(changed);
}

void process_pending_devices() {
    // Taken out whole: nothing a registration does may move the records being worked on.
    std::vector<Device> pending;
    pending.swap(g_pending_devices);
    for (Device& device : pending) {
        register_pending_device(device);
        answer_between_registrations();
    }
}

void process_event_pipe() {
    char byte = 0;
    while (::read(g_event_pipe[0], &byte, 1) > 0) {
    }
    if (leases_received()) {
        process_device_id_requests();
        process_sifter_user_agents();
    }
    process_dhcp_results();
    process_removed_devices();
    process_new_devices();
    process_changed_devices();
    // Last: every request of the pass is answered before a registration waits on the cloud.
    process_pending_devices();
}
