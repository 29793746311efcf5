#include "event_loop.h"

#include <sys/epoll.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include <nk/log.h>

namespace nk::collector {

bool EventLoop::open() {
    epoll_ = nk::io::unique_fd(::epoll_create1(EPOLL_CLOEXEC));
    if (!epoll_)
        NK_LOG(nk::log::ERROR, "cannot make the scanners' epoll set: {:s}", std::strerror(errno));
    return static_cast<bool>(epoll_);
}

EventLoop::Id EventLoop::watch(int fd, std::uint32_t events, FdCallback callback) {
    const Id id = next_id_++;
    watches_.emplace(id, Watch{fd, events, std::move(callback)});
    by_fd_[fd].insert(id);
    sync_fd(fd);
    return id;
}

void EventLoop::modify(Id id, std::uint32_t events) {
    const auto it = watches_.find(id);
    if (it == watches_.end() || it->second.events == events)
        return;
    it->second.events = events;
    sync_fd(it->second.fd);
}

void EventLoop::unwatch(Id id) {
    const auto it = watches_.find(id);
    if (it == watches_.end())
        return;
    const int fd = it->second.fd;
    watches_.erase(it);
    const auto ids = by_fd_.find(fd);
    ids->second.erase(id);
    if (ids->second.empty())
        by_fd_.erase(ids);
    sync_fd(fd);
}

// A descriptor that no watch wants anything of leaves the set: epoll would otherwise report
// its hang-up at every turn to nobody.
void EventLoop::sync_fd(int fd) {
    std::uint32_t wanted = 0;
    const auto ids = by_fd_.find(fd);
    if (ids != by_fd_.end()) {
        for (const Id id : ids->second)
            wanted |= watches_.at(id).events;
    }
    const auto reg = registered_.find(fd);
    if (wanted == 0) {
        if (reg != registered_.end()) {
            // A descriptor closed already has left the set by itself.
            ::epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, fd, nullptr);
            registered_.erase(reg);
        }
        return;
    }
    if (reg != registered_.end() && reg->second == wanted)
        return;
    epoll_event ev{};
    ev.events = wanted;
    ev.data.fd = fd;
    // The number may be a new descriptor that took a closed one's place, or the reverse.
    int op = reg != registered_.end() ? EPOLL_CTL_MOD : EPOLL_CTL_ADD;
    int rc = ::epoll_ctl(epoll_.get(), op, fd, &ev);
    if (rc != 0 && (errno == ENOENT || errno == EEXIST)) {
        op = op == EPOLL_CTL_MOD ? EPOLL_CTL_ADD : EPOLL_CTL_MOD;
        rc = ::epoll_ctl(epoll_.get(), op, fd, &ev);
    }
    if (rc != 0) {
        NK_LOG(nk::log::ERROR, "cannot watch descriptor {:d}: {:s}", fd, std::strerror(errno));
        registered_.erase(fd);
        return;
    }
    registered_[fd] = wanted;
}

EventLoop::Id EventLoop::add_timer(Clock::time_point when, TimerCallback callback) {
    const Id id = next_id_++;
    timers_.emplace(id, Timer{when, std::move(callback)});
    timer_order_.emplace(when, id);
    return id;
}

void EventLoop::cancel_timer(Id id) {
    const auto it = timers_.find(id);
    if (it == timers_.end())
        return;
    timer_order_.erase({it->second.when, id});
    timers_.erase(it);
}

std::optional<Clock::time_point> EventLoop::next_timer() const {
    if (timer_order_.empty())
        return std::nullopt;
    return timer_order_.begin()->first;
}

void EventLoop::run_fd(int fd, std::uint32_t ready) {
    const auto ids = by_fd_.find(fd);
    if (ids == by_fd_.end())
        return;
    const std::vector<Id> candidates(ids->second.begin(), ids->second.end());
    for (const Id id : candidates) {
        const auto it = watches_.find(id);
        if (it == watches_.end())
            continue;
        const std::uint32_t mine = ready & (it->second.events | EPOLLERR | EPOLLHUP);
        if (mine == 0)
            continue;
        // The callback may remove its own watch.
        const FdCallback callback = it->second.callback;
        callback(mine);
    }
}

// Only timers due when the pass began run: one that a callback sets for "now" waits for the
// next pass, so a pass always ends.
void EventLoop::run_timers() {
    const Clock::time_point now = Clock::now();
    std::vector<Id> due;
    for (const auto& [when, id] : timer_order_) {
        if (when > now)
            break;
        due.push_back(id);
    }
    for (const Id id : due) {
        const auto it = timers_.find(id);
        if (it == timers_.end())
            continue;
        const TimerCallback callback = std::move(it->second.callback);
        cancel_timer(id);
        callback();
    }
}

void EventLoop::dispatch() {
    epoll_event events[32];
    const int n = ::epoll_wait(epoll_.get(), events, 32, 0);
    for (int i = 0; i < n; ++i)
        run_fd(events[i].data.fd, events[i].events);
    run_timers();
}

}  // namespace nk::collector
