#include "scanners.h"

#include <net/if.h>

#include <nk/log.h>

namespace nk::collector {

Scanners::Scanners(Write write, ScanLimits limits)
    : write_(std::move(write)), limits_(limits), reports_(limits.repeat) {}

bool Scanners::open() {
    if (!loop_.open())
        return false;
    mdns_.emplace(loop_, [this](const std::string& key, const MdnsService& service) {
        if (mdns_seen_)
            mdns_seen_(service);
        say("avahi " + key, avahi_message(service), "mDNS service");
    });
    upnp_.emplace(
        loop_,
        [this](const std::string& key, const std::string& ip, const upnp::Info& info,
               const std::string& server) {
            say("upnp " + key, upnp_message(ip, info, server), "UPnP description");
        },
        limits_.upnp);
    if (!upnp_->open())
        upnp_.reset();
    netbios_.emplace(
        loop_,
        [this](const std::string& ip, const nbstat::Table& table) {
            say("netbios " + ip, netbios_message(ip, table), "NetBIOS table");
        },
        limits_.netbios);
    if (!netbios_->open())
        netbios_.reset();
    repeat();
    return true;
}

void Scanners::update(const LanInterfaces& lans, const Snapshot& snapshot) {
    std::set<int> indexes;
    for (const LanInterface& lan : lans) {
        if (const unsigned index = ::if_nametoindex(lan.name.c_str()); index != 0)
            indexes.insert(static_cast<int>(index));
    }
    mdns_->set_interfaces(indexes);
    if (upnp_)
        upnp_->set_interfaces(lans);
    if (netbios_) {
        std::set<sockutl::address> hosts;
        for (const auto& [mac, leased] : snapshot.macs) {
            for (const sockutl::address& ip : leased.ips) {
                if (ip.is_v4())
                    hosts.insert(ip);
            }
        }
        netbios_->set_hosts(hosts);
    }
}

void Scanners::say(const std::string& key, const std::string& line, const char* what) {
    if (line.empty()) {
        NK_LOG(nk::log::INFO, "{:s} {:s} skipped: it cannot be written as JSON", what, key);
        return;
    }
    if (!reports_.offer(key, line, Clock::now()))
        return;
    NK_LOG(nk::log::DEBUG, "{:s}: {:s}", what, line);
    if (output_ok_ && !write_(line))
        output_ok_ = false;
}

// The daemon forgets what it was told at its flushes: unchanged findings are told again now
// and then.
void Scanners::repeat() {
    for (const std::string& line : reports_.due(Clock::now())) {
        if (output_ok_ && !write_(line))
            output_ok_ = false;
    }
    repeat_timer_ = loop_.add_timer(Clock::now() + limits_.repeat / 4, [this]() { repeat(); });
}

}  // namespace nk::collector
