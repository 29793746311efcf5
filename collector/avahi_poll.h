// avahi-client's poll interface over the scanners' event loop: the D-Bus connection's
// descriptors and avahi's timeouts are served by the collector's own thread, with no
// AvahiSimplePoll loop of their own.
#pragma once

#include <avahi-common/watch.h>

#include <map>
#include <memory>

#include "event_loop.h"

namespace nk::collector {
class AvahiLoopPoll;
}

// The opaque types avahi's header declares, defined here.
struct AvahiWatch {
    nk::collector::AvahiLoopPoll* owner = nullptr;
    int fd = -1;
    AvahiWatchEvent events{};
    AvahiWatchEvent last{};  // what the callback being run got
    AvahiWatchCallback callback = nullptr;
    void* userdata = nullptr;
    nk::collector::EventLoop::Id id = 0;
};

struct AvahiTimeout {
    nk::collector::AvahiLoopPoll* owner = nullptr;
    AvahiTimeoutCallback callback = nullptr;
    void* userdata = nullptr;
    nk::collector::EventLoop::Id timer = 0;
};

namespace nk::collector {

class AvahiLoopPoll {
public:
    explicit AvahiLoopPoll(EventLoop& loop);
    ~AvahiLoopPoll();
    AvahiLoopPoll(const AvahiLoopPoll&) = delete;
    AvahiLoopPoll& operator=(const AvahiLoopPoll&) = delete;

    // What avahi_client_new takes; valid as long as this object.
    const AvahiPoll* api() const { return &api_; }

    // Callbacks avahi calls through api(); public for the C trampolines only.
    AvahiWatch* watch_new(int fd, AvahiWatchEvent events, AvahiWatchCallback callback,
                          void* userdata);
    void watch_update(AvahiWatch* w, AvahiWatchEvent events);
    void watch_free(AvahiWatch* w);
    AvahiTimeout* timeout_new(const struct timeval* tv, AvahiTimeoutCallback callback,
                              void* userdata);
    void timeout_update(AvahiTimeout* t, const struct timeval* tv);
    void timeout_free(AvahiTimeout* t);

private:
    void arm(AvahiTimeout* t, const struct timeval* tv);

    EventLoop& loop_;
    AvahiPoll api_{};
    std::map<AvahiWatch*, std::unique_ptr<AvahiWatch>> watches_;
    std::map<AvahiTimeout*, std::unique_ptr<AvahiTimeout>> timeouts_;
};

}  // namespace nk::collector
