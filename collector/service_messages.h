// The "avahi", "upnp" and "netbios" lines the daemon reads, and the memory of what was said so
// that an unchanged finding is not repeated at every scan.
#pragma once

#include <chrono>
#include <cstddef>
#include <map>
#include <string>
#include <vector>

#include "nbstat.h"
#include "upnp_description.h"

namespace nk::collector {

struct MdnsService {
    std::vector<std::string> ips;
    std::string service;  // the type, "_http._tcp"
    std::string hostname;
    std::string text;  // the TXT record, as "key=value" strings in quotes
    int port = 0;
};

// One JSON line each; empty on failure.
std::string avahi_message(const MdnsService& service);
std::string upnp_message(const std::string& ip, const upnp::Info& info,
                         const std::string& user_agent);
std::string netbios_message(const std::string& ip, const nbstat::Table& table);

// Says a line again only when it changed or when `repeat` has passed: the daemon forgets what
// it was told at its flushes. Holds at most `max_keys` findings; the oldest go first.
class Reports {
public:
    using Clock = std::chrono::steady_clock;

    explicit Reports(Clock::duration repeat, std::size_t max_keys = 1024)
        : repeat_(repeat), max_keys_(max_keys) {}

    // Whether `line` is to be written now for `key`; it then counts as said.
    bool offer(const std::string& key, const std::string& line, Clock::time_point now);
    void forget(const std::string& key) { said_.erase(key); }
    // The lines due again now, counted as said.
    std::vector<std::string> due(Clock::time_point now);

private:
    struct Said {
        std::string line;
        Clock::time_point at;
    };
    Clock::duration repeat_;
    std::size_t max_keys_;
    std::map<std::string, Said> said_;
};

}  // namespace nk::collector
