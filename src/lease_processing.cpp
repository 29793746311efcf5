#include "lease_processing.h"

#include <algorithm>
#include <mutex>
#include <string>
#include <unordered_set>
#include <vector>

#include <fmt/format.h>
#include <nk/json.h>
#include <nk/log.h>

#include "daemon_state.h"
#include "device.h"
#include "device_storage.h"
#include "event_pipe.h"
#include "host_names.h"
#include "ignored_macs.h"
#include "leases.h"
#include "network_info.h"
#include "rotated_macs.h"
#include "waiting_answers.h"

namespace {

using nk::leases::leases_t;
using nk::leases::v4::mangled_mac_t;

// Sorted, so that the same addresses always read the same in the log.
std::string ips_text(const nk::ip_set& ips) {
    std::vector<address> sorted(ips.begin(), ips.end());
    std::sort(sorted.begin(), sorted.end());
    return fmt::format("[{}]", fmt::join(sorted, ", "));
}

void replace_mangled_macs(const json_t* list) {
    std::vector<mangled_mac_t> pairs;
    for (std::size_t i = 0; i < json_array_size(list); ++i) {
        const json_t* element = json_array_get(list, i);
        const char* real = nk::json_string_member(element, "real_mac");
        const char* fake = nk::json_string_member(element, "fake_mac");
        const char* ip = nk::json_string_member(element, "ip");
        if (real == nullptr || fake == nullptr || ip == nullptr)
            continue;
        pairs.push_back(mangled_mac_t{macaddr(real), macaddr(fake), address(ip)});
    }
    const std::lock_guard lock(g_mangled_macs_mutex);
    g_mangled_macs = std::move(pairs);
}

// The ignored list is text as users typed it; any spelling of a MAC the platform reads counts.
std::unordered_set<macaddr> ignored_macs() {
    std::unordered_set<macaddr> macs;
    for (const std::string& text : discovery_ignored_macs()) {
        const auto first = text.find_first_not_of(" \t");
        const auto last = text.find_last_not_of(" \t");
        if (first == std::string::npos)
            continue;
        const macaddr mac(text.substr(first, last - first + 1));
        if (mac.is_valid())
            macs.insert(mac);
    }
    return macs;
}

std::string entry_of(const leases_t::text_map& map, const macaddr& mac) {
    const auto it = map.find(mac);
    return it == map.end() ? std::string() : it->second;
}

// The device listing `mac` among its cloud MACs. The BOX lists none of its own, as a rule.
Device* find_lease_device(const macaddr& mac) {
    const std::string key = mac_key(mac);
    for (Device& device : g_devices) {
        if (device.cloud.macs.empty()) {
            if (device.cloud.device_id != g_device_id)
                NK_LOG(nk::log::WARN, "BUG: device {:s} has no cloud macs", device.cloud.device_id);
            continue;
        }
        if (device.cloud.macs.count(key) != 0)
            return &device;
    }
    return nullptr;
}

void add_new_device(const macaddr& mac, const nk::ip_set& ips, const std::string& iface) {
    Device device("", mac, ips, "");
    device.connect_device(is_guest(iface) ? 1 : 0);
    if (!device.cloud.device_id.empty())
        g_devices.push_back(std::move(device));
}

// The lease's addresses replace the MAC's, but the IPv6 link-local ones stay: a DHCP server
// never leases those, and the device still answers on them.
void update_addresses(Device& device, const macaddr& mac, const nk::ip_set& ips,
                      const std::string& iface) {
    nk::ip_set next = ips;
    for (const address& ip : device.local.macips.ipll(mac))
        next.insert(ip);
    const nk::ip_set current = device.local.macips.get_ips(mac, true);
    OnboxInfo& onbox = device.local.onbox_info;
    if (next == current && onbox.onbox == 1)
        return;
    NK_LOG(nk::log::INFO, "mac {} changed ips from {} to {}", mac, ips_text(current),
           ips_text(next));
    onbox.onbox = 1;
    onbox.to_send = true;
    device.local.macips.clear_mac(mac);
    for (const address& ip : next)
        device.local.macips.add_ip(mac, ip);
    device.set_device_onguest(is_guest(iface) ? 1 : 0);
    write_device_to_storage(device, true);
}

void apply_lease(const leases_t& leases, const macaddr& mac) {
    const nk::ip_set ips = leases.get_ips(mac, true);
    if (ips.empty()) {
        NK_LOG(nk::log::WARN, "BUG: Got leases with no ips for mac {}", mac);
        return;
    }
    const std::string host = entry_of(leases.hosts, mac);
    if (!host.empty() && host != nk::leases::kNoHost)
        g_hostnames[mac] = host;
    const std::string iface = entry_of(leases.ifaces, mac);
    if (is_wan(iface)) {
        NK_LOG(nk::log::WARN, "BUG: Got lease on WAN: mac={}, iface={:s}", mac, iface);
        return;
    }

    Device* const device = find_lease_device(mac);
    if (device == nullptr) {
        add_new_device(mac, ips, iface);
        return;
    }
    if (device->cloud.device_id == g_device_id) {
        NK_LOG(nk::log::WARN, "BUG: Got lease for BOX itself: mac={}, ips={}", mac, ips_text(ips));
        return;
    }
    if (!device->lock_device_key())
        return;
    update_addresses(*device, mac, ips, iface);
    // A host name the leases report is offered to the cloud as the device's detected name.
    device->update_box_detected_name(host);
    device->unlock_device_key();
}

// A cloud MAC that lost its lease loses its addresses; a device left with none goes offline.
void take_unleased_offline(Device& device, const leases_t& leases) {
    bool changed = false;
    for (const auto& [key, mac] : device.cloud.macs) {
        if (leases.has_mac(mac))
            continue;
        const auto it = device.local.macips.ips.find(mac);
        if (it == device.local.macips.ips.end() || it->second.empty())
            continue;
        NK_LOG(nk::log::INFO, "mac {} is now offline", mac);
        device.local.macips.clear_mac(mac);
        changed = true;
    }
    OnboxInfo& onbox = device.local.onbox_info;
    const auto& all = device.local.macips.ips;
    const bool any_address = std::any_of(all.begin(), all.end(),
                                         [](const auto& entry) { return !entry.second.empty(); });
    if (!any_address && onbox.onbox == 1) {
        onbox.onbox = 0;
        changed = true;
    }
    if (!changed)
        return;
    onbox.to_send = true;
    // Written once, with the onbox state it now has.
    write_device_to_storage(device, true);
}

}  // namespace

void process_leases(const json_t* data) {
    leases_t leases;
    if (!leases.from_json(json_object_get(data, "leases")))
        return;
    if (const json_t* mangled = json_object_get(data, "mangled_macs"))
        replace_mangled_macs(mangled);

    // A user who lists a MAC expects the daemon to leave it alone.
    const std::unordered_set<macaddr> ignored = ignored_macs();
    for (const macaddr& mac : leases.macs) {
        if (ignored.count(mac) != 0) {
            NK_LOG(nk::log::DEBUG, "mac {} is ignored", mac);
            continue;
        }
        apply_lease(leases, mac);
        answer_between_registrations();
    }

    // By index: unlocking runs deferred events, which may grow the inventory.
    for (std::size_t i = 0; i < g_devices.size(); ++i) {
        Device& device = g_devices[i];
        if (device.cloud.device_id == g_device_id || !device.lock_device_key())
            continue;
        take_unleased_offline(device, leases);
        device.handle_onbox_info();
        g_devices[i].unlock_device_key();
    }

    // DHCP messages of random MACs waiting for these leases are taken now.
    if (held_dhcp_results() > 0)
        wake_main_loop();
    if (!leases_received()) {
        set_leases_received(true);
        // Requests that waited for the first leases are answered now, not at the next event.
        wake_main_loop();
    }
}
