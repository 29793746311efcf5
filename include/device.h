// The device record, its halves, and the records queued by the bus handlers.
#pragma once

#include <jansson.h>

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include <fmt/format.h>
#include <nk/devmgmt.h>
#include <nk/setmgmt.h>
#include <nk/sockutl.h>

#include "macips.h"
#include "service_info.h"

using nk::sockutl::address;
using nk::sockutl::macaddr;

// The text under which a MAC is a key in the inventory's maps.
std::string mac_key(const macaddr& mac);

// What the cloud owns and reports about a device.
class CloudData {
public:
    std::string device_id;
    std::string device_os;
    std::string device_os_version;
    std::string device_type;
    std::string mac_vendor;
    std::string device_model;
    std::string profile_id;
    std::map<std::string, macaddr> macs;  // by mac_key
    std::unordered_map<std::string, int> apps;
    std::string box_detected_name;
    std::vector<std::string> box_detected_name_history;
    std::string device_detection_name;
    std::string display_name;
    std::string friendly_name;
    int blocked = 0;
    int onguest = 0;
    int scan_level = 2;
    int va_scan_level = 1;
    int upnp_enabled = 0;
    std::string box_device_id;
    int onbox = 0;
    nk::macips_t macips;
    std::int64_t created = 0;

    // Adds a MAC the cloud listed; false for empty or invalid text (the latter logged).
    bool add_mac(const std::string& text);

    friend bool operator==(const CloudData& a, const CloudData& b);
    friend bool operator!=(const CloudData& a, const CloudData& b) { return !(a == b); }
};

struct OnboxInfo {
    int onbox = 0;
    bool to_send = false;
    long sent_at = 0;  // g_now of the last send
};

// What the router itself has seen of a device.
class LocalData {
public:
    std::string device_id;
    OnboxInfo onbox_info;
    AdditionalInfoCache<nk::avahi::AvahiInfo> avahi_info;
    AdditionalInfoCache<nk::upnp::UpnpInfo> upnp_info;
    AdditionalInfoCache<nk::netbios::NetbiosTable> netbios_info;
    nk::macips_t macips;
};

// Members that reach the cloud or the store are defined by the services that own that work, so
// that the record itself depends on none of them: cloud_macs.cpp, device_storage.cpp,
// device_fields.cpp, device_registration.cpp and onbox_reporting.cpp.
class Device {
public:
    static const nk::path base_key;  // "/devices"

    Device() = default;
    // A device first seen locally; without a host name it takes the one the leases gave.
    Device(const std::string& local_id, const macaddr& mac, const nk::ip_set& ips,
           const std::string& hostname);

    nk::path device_key() const;
    nk::path field_key(const std::string& field) const;
    bool lock_device_key() const;
    // Unlocks, then runs the deferred external events once, whatever the unlock gave.
    bool unlock_device_key();

    // Adds a MAC the cloud lists; its confirmation waits for the key's unlock.
    bool update_mac_from_cloud(const char* text);
    // Adds and stores the listed MACs, then confirms them: at the unlock when the key is
    // held, at once otherwise.
    bool update_macs_from_cloud(json_t* array);
    // A MAC just confirmed as this device's: announce or drop what was kept under a temporary id.
    void confirm_mac_identity(const macaddr& mac);
    void set_device_onguest(int onguest);
    // {"box_detected_name": name, "mac": first cloud MAC}; owned by the caller.
    json_t* get_connect_device_params(const std::string& name) const;
    // Fetches the named fields (and with `additional` the extra ones) and stores what changed.
    // The caller holds the device key lock.
    bool update_device_fields_from_cloud(const std::vector<std::string>& fields, bool additional);

    // Registers the device's first cloud MAC; the id the cloud gave (or "") becomes its id.
    bool add_device_to_cloud();
    // Registers a device seen for the first time and prepares it for the inventory.
    void connect_device(int on_guest);
    // Reports a new host name to the cloud. The caller holds the device key lock.
    void update_box_detected_name(const std::string& name);

    // Reports the onbox state when one is due and the gate allows it.
    void handle_onbox_info();
    // True when the cloud took the report or it is too soon to send another.
    bool send_onbox_to_cloud();

    nk::devMgmt::Device to_devmgmt_device() const;
    void from_devmgmt_device(const nk::devMgmt::Device& record);

    CloudData cloud;
    LocalData local;
    int info_sync_pending = 0;
    std::int64_t info_sync_pending_since = 0;
    std::vector<std::function<void()>> external_events;

private:
    void run_external_events();
};

// A device id asked for by another daemon; answered on the bus by request id.
struct DeviceIdRequest {
    macaddr mac;
    address ip;
    std::uint64_t request_id = 0;
};

// A device whose fields the cloud changed.
struct ChangedInfo {
    std::string device_id;
    std::vector<std::string> fields;
    bool is_additional = false;
};

// An HTTP user agent seen for a LAN client.
struct UserAgent {
    address ip;
    macaddr mac;
    std::string user_agent;
};

extern std::vector<Device> g_devices;

Device* find_device_by_dev_id(const std::string& id);
Device* find_device_by_mac(const macaddr& mac);
Device* find_device_by_ip(const address& ip);
bool is_temporary(const std::string& id);

template <>
struct fmt::formatter<OnboxInfo> : fmt::formatter<std::string_view> {
    template <typename Ctx>
    auto format(const OnboxInfo& o, Ctx& ctx) const {
        return fmt::format_to(ctx.out(), "(onbox={:d}, to_send={})", o.onbox, o.to_send);
    }
};
