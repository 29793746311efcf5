#include "service_reports.h"

#include <string>
#include <vector>

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <nk/json.h>
#include <nk/log.h>

#include "daemon_state.h"
#include "device.h"
#include "network_info.h"
#include "service_info.h"
#include "user_agents.h"

namespace {

// A negative setting caps nothing in, rather than everything.
unsigned int cap(int max_size) {
    return max_size > 0 ? static_cast<unsigned int>(max_size) : 0;
}

// The device of the report's "ip", or null (logged when the address is valid but unknown).
Device* device_of_report(const json_t* data, address& ip) {
    ip = address(nk::json_string_member(data, "ip"));
    if (!ip.is_v4_or_v6())
        return nullptr;
    Device* const device = find_device_by_ip(ip);
    if (device == nullptr)
        NK_LOG(nk::log::DEBUG, "No device with ip {}", ip);
    return device;
}

// The MAC under which the device holds `ip`.
macaddr mac_of(const Device& device, const address& ip) {
    for (const auto& [mac, ips] : device.local.macips.ips) {
        if (ips.count(ip) != 0)
            return mac;
    }
    return macaddr();
}

// A UPnP description may name the agent the device speaks HTTP with.
void save_upnp_user_agent(const Device& device, const address& ip, const char* user_agent) {
    const macaddr mac = mac_of(device, ip);
    if (!mac.is_valid() || !is_in_subnet(ip.to_string())) {
        NK_LOG(nk::log::WARN, "Invalid user_agent parameters: ip={}, mac={}", ip, mac);
        return;
    }
    save_user_agent(ip.to_string(), mac.to_string(), user_agent);
}

}  // namespace

void process_avahi_data(const json_t* data) {
    json_t* ips = nullptr;
    const char* service = nullptr;
    const char* hostname = nullptr;
    const char* text = nullptr;
    int port = 0;
    if (json_unpack(const_cast<json_t*>(data), "{s:o s:s s:s s:s s:i}", "ips", &ips, "service",
                    &service, "hostname", &hostname, "text", &text, "port", &port) != 0) {
        return;
    }
    std::vector<address> addresses;
    for (std::size_t i = 0; i < json_array_size(ips); ++i)
        addresses.emplace_back(json_string_value(json_array_get(ips, i)));

    Device* device = nullptr;
    for (const address& ip : addresses) {
        if ((device = find_device_by_ip(ip)) != nullptr)
            break;
    }
    if (device == nullptr) {
        if (!addresses.empty())
            NK_LOG(nk::log::DEBUG, "No device with ip from [{}]", fmt::join(addresses, ", "));
        return;
    }
    nk::avahi::AvahiInfo info{service, hostname, text, port};
    const std::string shown = fmt::format("{}", info);
    if (device->local.avahi_info.add_data(std::move(info), cap(g_avahi_max_cache_size))) {
        NK_LOG(nk::log::INFO, "New Avahi service for device_id='{:s}': {:s}",
               device->cloud.device_id, shown);
    }
}

void process_upnp_data(const json_t* data) {
    address ip;
    Device* const device = device_of_report(data, ip);
    if (device == nullptr)
        return;
    nk::upnp::UpnpInfo description = upnp_info_set_from_json(json_object_get(data, "info"));
    const std::string shown = fmt::format("{}", description);
    if (device->local.upnp_info.add_data(std::move(description), cap(g_upnp_max_cache_size))) {
        NK_LOG(nk::log::INFO, "New UPnP info for device_id='{:s}': {:s}", device->cloud.device_id,
               shown);
    }
    const char* user_agent = nk::json_string_member(data, "user_agent");
    if (user_agent != nullptr && *user_agent != '\0')
        save_upnp_user_agent(*device, ip, user_agent);
}

void process_netbios_data(const json_t* data) {
    address ip;
    Device* const device = device_of_report(data, ip);
    if (device == nullptr)
        return;
    nk::netbios::NetbiosTable table;
    if (!table.from_json(json_object_get(data, "info")))
        return;
    if (device->local.netbios_info.add_data(std::move(table), cap(g_netbios_max_cache_size)))
        NK_LOG(nk::log::INFO, "New NetBIOS info for device_id='{:s}'", device->cloud.device_id);
}
