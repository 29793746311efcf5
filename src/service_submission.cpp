#include "service_submission.h"

#include <algorithm>
#include <set>
#include <string>

#include <fmt/ranges.h>
#include <nk/json.h>
#include <nk/log.h>

#include "additional_info.h"
#include "daemon_state.h"
#include "device.h"
#include "service_info.h"

namespace {

// Before the first submission since a reset, data counts as new only when it differs from
// what was set aside; afterwards it is offered again once per interval.
template <typename T, typename Same>
bool is_due(const AdditionalInfoCache<T>& cache, int interval, Same same) {
    if (cache.last_submission == 0) {
        return !std::equal(cache.current.begin(), cache.current.end(), cache.kept.begin(),
                           cache.kept.end(), same);
    }
    return g_now - cache.last_submission >= interval;
}

// One kind of service information: where a device keeps it and how it is sent.
template <typename T>
struct ServiceKind {
    AdditionalInfoCache<T> LocalData::*cache;
    const int& interval;
    json_t* (*build)(const std::set<T>&);
    AdditionalInfoType type;
    bool (*same)(const T&, const T&);
    void (*announce)(const std::string& device_id, const std::set<T>& records);
};

template <typename T>
void submit_due(const ServiceKind<T>& kind) {
    // By index: a synchronous request runs while the inventory stays as it is, but the record
    // is looked up afresh after it.
    for (std::size_t i = 0; i < g_devices.size(); ++i) {
        AdditionalInfoCache<T>& cache = g_devices[i].local.*kind.cache;
        if (cache.current.empty() || !cache.pending || !is_due(cache, kind.interval, kind.same))
            continue;
        const std::string device_id = g_devices[i].cloud.device_id;
        kind.announce(device_id, cache.current);
        nk::json_ptr payload(kind.build(cache.current));
        if (!payload)
            continue;
        if (!send_device_additional_info(device_id, std::move(payload), kind.type))
            continue;  // offered again one interval later
        if (i < g_devices.size() && g_devices[i].cloud.device_id == device_id) {
            AdditionalInfoCache<T>& sent = g_devices[i].local.*kind.cache;
            sent.last_submission = g_now;
            sent.pending = false;
        }
    }
}

// Services and tables are told apart by their names only; UPnP descriptions whole.
const ServiceKind<nk::avahi::AvahiInfo> kAvahi{
    &LocalData::avahi_info,
    g_avahi_submission_interval,
    build_avahi_payload,
    kAdditionalInfoAvahi,
    [](const nk::avahi::AvahiInfo& a, const nk::avahi::AvahiInfo& b) {
        return a.service == b.service;
    },
    [](const std::string& device_id, const std::set<nk::avahi::AvahiInfo>& records) {
        NK_LOG(nk::log::INFO, "Sending updated Avahi info for device_id='{:s}': {}", device_id,
               records);
    }};

const ServiceKind<nk::upnp::UpnpInfo> kUpnp{
    &LocalData::upnp_info,
    g_upnp_submission_interval,
    build_upnp_payload,
    kAdditionalInfoUpnp,
    [](const nk::upnp::UpnpInfo& a, const nk::upnp::UpnpInfo& b) { return a == b; },
    [](const std::string& device_id, const std::set<nk::upnp::UpnpInfo>& records) {
        NK_LOG(nk::log::INFO, "Sending updated UPnP info for device_id='{:s}': {}", device_id,
               records);
    }};

const ServiceKind<nk::netbios::NetbiosTable> kNetbios{
    &LocalData::netbios_info,
    g_netbios_submission_interval,
    build_netbios_payload,
    kAdditionalInfoNetbios,
    [](const nk::netbios::NetbiosTable& a, const nk::netbios::NetbiosTable& b) {
        return a.name == b.name && a.domain == b.domain;
    },
    [](const std::string& device_id, const std::set<nk::netbios::NetbiosTable>& records) {
        NK_LOG(nk::log::INFO, "Sending updated NetBIOS info for device_id='{:s}': {}", device_id,
               records);
    }};

}  // namespace

void process_avahi_services() {
    submit_due(kAvahi);
}

void process_upnp_devices() {
    submit_due(kUpnp);
}

void process_netbios_devices() {
    submit_due(kNetbios);
}

void reset_service_info(ServiceInfoKind kind) {
    for (Device& device : g_devices) {
        switch (kind) {
            case ServiceInfoKind::Avahi:
                if (!device.local.avahi_info.empty())
                    device.local.avahi_info.reset();
                break;
            case ServiceInfoKind::Upnp:
                if (!device.local.upnp_info.empty())
                    device.local.upnp_info.reset();
                break;
            case ServiceInfoKind::Netbios:
                if (!device.local.netbios_info.empty())
                    device.local.netbios_info.reset();
                break;
        }
    }
}
