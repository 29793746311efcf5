// Service information gathered per device: mDNS services, UPnP descriptions, NetBIOS names.
#pragma once

#include <jansson.h>

#include <ctime>
#include <set>
#include <string>
#include <tuple>
#include <utility>

#include <fmt/format.h>
#include <fmt/ranges.h>

namespace nk::avahi {

struct AvahiInfo {
    std::string service;
    std::string hostname;
    std::string text;
    int port = 0;

    // One record per service name: a later one with other details is not kept.
    friend bool operator<(const AvahiInfo& a, const AvahiInfo& b) { return a.service < b.service; }
};

}  // namespace nk::avahi

namespace nk::upnp {

// One UPnP device description: (name, value) pairs.
using UpnpInfo = std::set<std::pair<std::string, std::string>>;

}  // namespace nk::upnp

namespace nk::netbios {

struct NetbiosTable {
    std::string name;
    std::string domain;
    std::set<std::pair<std::string, std::string>> services;

    // {"name", "domain", "services": [{"name", "service"}...]}; null on failure.
    json_t* to_json() const;
    // False, leaving the table as it was, unless every member is there with its type.
    bool from_json(const json_t* json);

    // Name and domain identify a table; its services do not.
    friend bool operator<(const NetbiosTable& a, const NetbiosTable& b) {
        return std::tie(a.name, a.domain) < std::tie(b.name, b.domain);
    }
};

}  // namespace nk::netbios

// Collected records of one kind for one device, between submissions.
template <typename T>
struct AdditionalInfoCache {
    std::time_t last_submission = 0;  // g_now of the last submission; 0 since the last reset
    std::set<T> current;
    std::set<T> kept;  // the set at the last reset
    bool pending = false;

    // Adds a record not held yet while fewer than `max_size` are held; true when added.
    bool add_data(T&& record, unsigned int max_size) {
        if (current.size() >= max_size)
            return false;
        if (!current.insert(std::move(record)).second)
            return false;
        pending = true;
        return true;
    }
    bool empty() const { return current.empty(); }
    // Sets the collected records aside and starts collecting afresh.
    void reset() {
        kept = std::move(current);
        current.clear();
        last_submission = 0;
        pending = false;
    }
};

// The "data" of a submission of each kind: an array in set order; null on any failure.
json_t* build_avahi_payload(const std::set<nk::avahi::AvahiInfo>& records);
json_t* build_upnp_payload(const std::set<nk::upnp::UpnpInfo>& descriptions);
json_t* build_netbios_payload(const std::set<nk::netbios::NetbiosTable>& tables);

// One member per pair (the greater value of a repeated name wins); null when empty.
json_t* upnp_info_set_to_json(const nk::upnp::UpnpInfo& description);
// The string members of an object; empty for anything else.
nk::upnp::UpnpInfo upnp_info_set_from_json(const json_t* json);

template <>
struct fmt::formatter<nk::avahi::AvahiInfo> : fmt::formatter<std::string_view> {
    template <typename Ctx>
    auto format(const nk::avahi::AvahiInfo& a, Ctx& ctx) const {
        return fmt::format_to(ctx.out(),
                              "(service='{:s}', hostname='{:s}', text='{:s}', port={:d})",
                              a.service, a.hostname, a.text, a.port);
    }
};

template <>
struct fmt::formatter<nk::netbios::NetbiosTable> : fmt::formatter<std::string_view> {
    template <typename Ctx>
    auto format(const nk::netbios::NetbiosTable& t, Ctx& ctx) const {
        return fmt::format_to(ctx.out(), "(name='{:s}', domain='{:s}', services={})", t.name,
                              t.domain, t.services);
    }
};
