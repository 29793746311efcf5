// One snapshot of the router's DHCP leases, and the pairs of fake and real MACs it reports.
#pragma once

#include <jansson.h>

#include <string>
#include <string_view>
#include <unordered_map>

#include <nk/json.h>
#include <nk/log.h>
#include <nk/sockutl.h>

#include "macips.h"

namespace nk::leases {

// The lease module's log channel. Opened on first use rather than at load time, so that its
// level comes from the settings store the process was pointed at on its command line.
struct log_channel {
    operator nk::log::Channel() const;  // NOLINT: converts where a Channel is expected
};
inline constexpr log_channel g_log{};

// The host name a lease without one gets.
inline constexpr const char* kNoHost = "*";

// Where lease files live on the supported routers; read by the collector, never by the daemon.
inline constexpr std::string_view kLeaseDirs[] = {"/nvram", "/tmp", "/var/etc", "/var/run"};
inline constexpr std::string_view kLeaseFiles[] = {
    "dhcp.leases", "dhcpd.leases",  "dnsmasq.leases", "dnsmasq_dhcps.leases",
    "leasefile",   "udhcpd.leases", "udhcpd_clients"};

// MAC <-> addresses of the leases, with the interface and host name of each leased MAC.
// A MAC has an interface or host entry only while the base map knows it.
class leases_t : public generic_macips<sockutl::macaddr, mac_validator> {
public:
    using base = generic_macips<sockutl::macaddr, mac_validator>;
    using text_map = std::unordered_map<sockutl::macaddr, std::string>;

    // Replaces the table by the lease array; false (table untouched) when not an array.
    bool from_json(const json_t* array);
    // One object per MAC with both an interface and a host; null when out of memory.
    json_ptr to_json() const;

    // False when the address was already there; host and interface are set all the same.
    bool add_one(const sockutl::macaddr& mac, const sockutl::address& ip, const std::string& host,
                 const std::string& iface);
    bool set_iface(const sockutl::macaddr& mac, const std::string& iface);
    bool set_host(const sockutl::macaddr& mac, const std::string& host);
    // Names the (first found) MAC that holds `ip`.
    bool set_host(const sockutl::address& ip, const std::string& host);

    bool del_mac(const sockutl::macaddr& mac);
    void clear();
    // Takes the interface and host entries this table lacks for the MACs it knows.
    void merge(const leases_t& other);

    text_map ifaces;
    text_map hosts;

private:
    void read_element(const json_t* element);
};

namespace v4 {

// A client that shows a made-up MAC for one address, and the MAC behind it.
struct mangled_mac_t {
    sockutl::macaddr real_mac;
    sockutl::macaddr fake_mac;
    sockutl::address ip;
};

}  // namespace v4

}  // namespace nk::leases
