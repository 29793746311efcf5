#include "avahi_poll.h"

#include <sys/time.h>

#include <avahi-common/timeval.h>

namespace nk::collector {

namespace {

AvahiLoopPoll* self(const AvahiPoll* api) {
    return static_cast<AvahiLoopPoll*>(api->userdata);
}

AvahiWatch* c_watch_new(const AvahiPoll* api, int fd, AvahiWatchEvent events,
                        AvahiWatchCallback callback, void* userdata) {
    return self(api)->watch_new(fd, events, callback, userdata);
}
void c_watch_update(AvahiWatch* w, AvahiWatchEvent events) {
    w->owner->watch_update(w, events);
}
AvahiWatchEvent c_watch_get_events(AvahiWatch* w) {
    return w->last;
}
void c_watch_free(AvahiWatch* w) {
    w->owner->watch_free(w);
}
AvahiTimeout* c_timeout_new(const AvahiPoll* api, const struct timeval* tv,
                            AvahiTimeoutCallback callback, void* userdata) {
    return self(api)->timeout_new(tv, callback, userdata);
}
void c_timeout_update(AvahiTimeout* t, const struct timeval* tv) {
    t->owner->timeout_update(t, tv);
}
void c_timeout_free(AvahiTimeout* t) {
    t->owner->timeout_free(t);
}

}  // namespace

AvahiLoopPoll::AvahiLoopPoll(EventLoop& loop) : loop_(loop) {
    api_.userdata = this;
    api_.watch_new = c_watch_new;
    api_.watch_update = c_watch_update;
    api_.watch_get_events = c_watch_get_events;
    api_.watch_free = c_watch_free;
    api_.timeout_new = c_timeout_new;
    api_.timeout_update = c_timeout_update;
    api_.timeout_free = c_timeout_free;
}

AvahiLoopPoll::~AvahiLoopPoll() {
    for (const auto& [w, owned] : watches_)
        loop_.unwatch(w->id);
    for (const auto& [t, owned] : timeouts_)
        loop_.cancel_timer(t->timer);
}

// avahi's event bits are poll()'s, which epoll shares.
AvahiWatch* AvahiLoopPoll::watch_new(int fd, AvahiWatchEvent events, AvahiWatchCallback callback,
                                     void* userdata) {
    auto owned = std::make_unique<AvahiWatch>();
    AvahiWatch* const w = owned.get();
    w->owner = this;
    w->fd = fd;
    w->events = events;
    w->callback = callback;
    w->userdata = userdata;
    w->id = loop_.watch(fd, events, [w](std::uint32_t ready) {
        w->last = static_cast<AvahiWatchEvent>(ready);
        // The callback may free the watch: nothing of it is touched afterwards.
        w->callback(w, w->fd, w->last, w->userdata);
    });
    watches_.emplace(w, std::move(owned));
    return w;
}

void AvahiLoopPoll::watch_update(AvahiWatch* w, AvahiWatchEvent events) {
    w->events = events;
    loop_.modify(w->id, events);
}

void AvahiLoopPoll::watch_free(AvahiWatch* w) {
    loop_.unwatch(w->id);
    watches_.erase(w);
}

AvahiTimeout* AvahiLoopPoll::timeout_new(const struct timeval* tv, AvahiTimeoutCallback callback,
                                         void* userdata) {
    auto owned = std::make_unique<AvahiTimeout>();
    AvahiTimeout* const t = owned.get();
    t->owner = this;
    t->callback = callback;
    t->userdata = userdata;
    timeouts_.emplace(t, std::move(owned));
    arm(t, tv);
    return t;
}

void AvahiLoopPoll::timeout_update(AvahiTimeout* t, const struct timeval* tv) {
    arm(t, tv);
}

void AvahiLoopPoll::timeout_free(AvahiTimeout* t) {
    loop_.cancel_timer(t->timer);
    timeouts_.erase(t);
}

// avahi gives wall-clock deadlines (gettimeofday); the loop counts on the monotonic clock.
void AvahiLoopPoll::arm(AvahiTimeout* t, const struct timeval* tv) {
    loop_.cancel_timer(t->timer);
    t->timer = 0;
    if (tv == nullptr)
        return;
    struct timeval now {};
    ::gettimeofday(&now, nullptr);
    const AvahiUsec left = avahi_timeval_diff(tv, &now);
    const Clock::time_point when = Clock::now() + std::chrono::microseconds(left > 0 ? left : 0);
    t->timer = loop_.add_timer(when, [t]() {
        t->timer = 0;
        t->callback(t, t->userdata);
    });
}

}  // namespace nk::collector
