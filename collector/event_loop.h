// The service scanners' descriptors and timers, on one epoll set of their own that the
// collector's loop watches as a single descriptor. Libraries that bring their own sockets and
// timers (avahi-client, libcurl) are driven through it, so everything runs on one thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <utility>

#include <nk/io.h>

namespace nk::collector {

using Clock = std::chrono::steady_clock;

class EventLoop {
public:
    using Id = std::uint64_t;  // 0 is no watch or timer
    using FdCallback = std::function<void(std::uint32_t events)>;
    using TimerCallback = std::function<void()>;

    // False when the epoll set cannot be made (logged).
    bool open();
    // Readable when a watched descriptor is ready; timers are due by next_timer().
    int fd() const { return epoll_.get(); }

    // Several watches may share a descriptor (D-Bus watches reading and writing apart). The
    // callback gets the ready events among its own, and errors and hang-ups always.
    Id watch(int fd, std::uint32_t events, FdCallback callback);
    void modify(Id id, std::uint32_t events);
    void unwatch(Id id);

    Id add_timer(Clock::time_point when, TimerCallback callback);
    void cancel_timer(Id id);
    std::optional<Clock::time_point> next_timer() const;

    // Runs the callbacks of the ready descriptors and of the timers due now. A callback may add
    // and remove watches and timers, its own included.
    void dispatch();

private:
    struct Watch {
        int fd;
        std::uint32_t events;
        FdCallback callback;
    };
    struct Timer {
        Clock::time_point when;
        TimerCallback callback;
    };

    void sync_fd(int fd);
    void run_fd(int fd, std::uint32_t ready);
    void run_timers();

    nk::io::unique_fd epoll_;
    Id next_id_ = 1;
    std::map<Id, Watch> watches_;
    std::map<int, std::set<Id>> by_fd_;
    std::map<int, std::uint32_t> registered_;  // what epoll has for each descriptor
    std::map<Id, Timer> timers_;
    std::set<std::pair<Clock::time_point, Id>> timer_order_;
};

}  // namespace nk::collector
