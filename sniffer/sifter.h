// The sifter's loop: captures on the LAN and guest interfaces, turns DHCP client messages and
// HTTP user agents into bus events, and follows the interface roles as they change.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "capture.h"
#include "counters.h"
#include "publisher.h"
#include "repeat_filter.h"

namespace nk::sniffer {

struct Config {
    // Captured on instead of the settings store's LAN and guest interfaces when not empty.
    std::vector<std::string> interfaces;
};

// Exit status when capturing is not permitted (sysexits' EX_NOPERM).
inline constexpr int kExitNoPermission = 77;

class Sifter {
public:
    explicit Sifter(Config config);

    // Captures until SIGTERM or SIGINT, which the caller must have blocked in every thread
    // (they are read from a signalfd). 0 when stopped by one; kExitNoPermission when the first
    // capture is refused for want of permission; 1 when the loop cannot be set up.
    int run();

private:
    struct Open {
        Capture capture;
        std::uint64_t reported_drops = 0;
    };

    // Opens the wanted interfaces not open yet and closes those no longer wanted. False when,
    // `starting`, capture was refused for want of permission.
    bool follow_interfaces(int epoll, bool starting);
    void read_frames(int epoll, const std::string& netif);
    void on_frame(const std::string& netif, const std::uint8_t* data, std::size_t length);
    void close_capture(int epoll, const std::string& netif);
    void log_minute();

    Config config_;
    Publisher publisher_{"nksifter"};
    RepeatFilter repeats_;
    Counters counters_;
    std::map<std::string, Open> captures_;
    std::map<int, std::string> by_fd_;
    std::set<std::string> said_missing_;  // failures already logged, until the name opens
    bool said_no_interface_ = false;
    std::uint64_t reported_dropped_ = 0;
    std::chrono::steady_clock::time_point next_report_;
};

}  // namespace nk::sniffer
