#include "leases.h"

#include <vector>

namespace nk::leases {

using sockutl::address;
using sockutl::macaddr;

log_channel::operator nk::log::Channel() const {
    static const nk::log::Channel channel =
        nk::log::open_channel("leases").value_or(nk::log::default_channel());
    return channel;
}

namespace {

std::vector<address> read_ips(const json_t* element) {
    std::vector<address> out;
    const json_t* ips = json_object_get(element, "ips");
    for (std::size_t i = 0; i < json_array_size(ips); ++i)
        out.emplace_back(json_string_value(json_array_get(ips, i)));
    return out;
}

json_ptr ips_to_json(const ip_set& ips) {
    json_ptr array(json_array());
    if (!array)
        return nullptr;
    for (const address& ip : ips) {
        if (json_array_append_new(array.get(), json_string(ip.to_string().c_str())) != 0)
            return nullptr;
    }
    return array;
}

}  // namespace

bool leases_t::from_json(const json_t* array) {
    if (!json_is_array(array))
        return false;
    clear();
    for (std::size_t i = 0; i < json_array_size(array); ++i)
        read_element(json_array_get(array, i));
    return true;
}

void leases_t::read_element(const json_t* element) {
    const char* mac_text = json_string_member(element, "mac");
    const char* host = json_string_member(element, "host");
    const char* iface = json_string_member(element, "iface");
    if (mac_text == nullptr || host == nullptr || iface == nullptr)
        return;
    const macaddr mac(mac_text);
    if (!mac.is_valid())
        return;
    const std::vector<address> ips = read_ips(element);
    if (ips.empty()) {
        // A lease without addresses is kept so that the caller can report it.
        add_mac(mac);
        set_host(mac, host);
        set_iface(mac, iface);
        return;
    }
    for (const address& ip : ips)
        add_one(mac, ip, host, iface);
}

json_ptr leases_t::to_json() const {
    json_ptr array(json_array());
    if (!array)
        return nullptr;
    for (const macaddr& mac : macs) {
        const auto iface = ifaces.find(mac);
        const auto host = hosts.find(mac);
        if (iface == ifaces.end() || host == hosts.end())
            continue;
        json_ptr ips = ips_to_json(get_ips(mac, true));
        if (!ips)
            return nullptr;
        json_t* const lease =
            json_pack("{s:s,s:o,s:s,s:s}", "mac", mac.to_string().c_str(), "ips", ips.release(),
                      "host", host->second.c_str(), "iface", iface->second.c_str());
        if (json_array_append_new(array.get(), lease) != 0)
            return nullptr;
    }
    return array;
}

bool leases_t::add_one(const macaddr& mac, const address& ip, const std::string& host,
                       const std::string& iface) {
    if (!validator(mac) || !ip.is_v4_or_v6() || iface.empty())
        return false;
    const bool added = add_ip(mac, ip);
    // Repeated leases of one MAC: the last one names its host and interface.
    hosts[mac] = host.empty() ? kNoHost : host;
    ifaces[mac] = iface;
    return added;
}

bool leases_t::set_iface(const macaddr& mac, const std::string& iface) {
    if (!validator(mac) || iface.empty() || !has_mac(mac))
        return false;
    ifaces[mac] = iface;
    return true;
}

bool leases_t::set_host(const macaddr& mac, const std::string& host) {
    if (!validator(mac) || host.empty() || !has_mac(mac))
        return false;
    hosts[mac] = host;
    return true;
}

bool leases_t::set_host(const address& ip, const std::string& host) {
    for (const auto& [mac, set] : ips) {
        if (set.count(ip) != 0)
            return set_host(mac, host);
    }
    return false;
}

bool leases_t::del_mac(const macaddr& mac) {
    ifaces.erase(mac);
    hosts.erase(mac);
    return base::del_mac(mac);
}

void leases_t::clear() {
    base::clear();
    ifaces.clear();
    hosts.clear();
}

void leases_t::merge(const leases_t& other) {
    for (const macaddr& mac : macs) {
        if (const auto it = other.ifaces.find(mac); it != other.ifaces.end())
            ifaces.try_emplace(mac, it->second);
        if (const auto it = other.hosts.find(mac); it != other.hosts.end())
            hosts.try_emplace(mac, it->second);
    }
}

}  // namespace nk::leases
