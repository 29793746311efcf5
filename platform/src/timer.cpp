#include "nk/timer.h"

#include <sys/timerfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <utility>

#include "nk/log.h"

namespace nk::time {

namespace {

constexpr long kNsPerMs = 1000000;
constexpr long kMsPerSec = 1000;

timespec from_ms(long ms) {
    timespec ts{};
    ts.tv_sec = ms / kMsPerSec;
    ts.tv_nsec = (ms % kMsPerSec) * kNsPerMs;
    return ts;
}

bool is_set(const timespec& ts) {
    return ts.tv_sec != 0 || ts.tv_nsec != 0;
}

// A zero it_value would disarm the timer; the callers mean "now", so it becomes 1 ns,
// which the kernel treats as already due (relative or absolute alike).
timespec first_expiry(timespec value) {
    if (value.tv_sec == 0 && value.tv_nsec == 0)
        value.tv_nsec = 1;
    return value;
}

int arm(int fd, const itimerspec& spec, bool absolute) {
    const int flags = absolute ? TFD_TIMER_ABSTIME : 0;
    if (::timerfd_settime(fd, flags, &spec, nullptr) == 0)
        return 0;
    NK_LOG(0, "cannot set timer fd {}: {}", fd, std::strerror(errno));
    return -1;
}

// Callers re-arm their timers at every loop turn; a timer already running with the same
// period keeps its next expiry, or a short first value would fire at every turn.
int start(int fd, const itimerspec& spec, bool absolute) {
    itimerspec current{};
    if (::timerfd_gettime(fd, &current) == 0 && is_set(current.it_value) &&
        current.it_interval.tv_sec == spec.it_interval.tv_sec &&
        current.it_interval.tv_nsec == spec.it_interval.tv_nsec) {
        return 0;
    }
    return arm(fd, spec, absolute);
}

}  // namespace

int timer_init(int type) {
    if (type != TIMER_LOOP && type != TIMER_OWNED) {
        NK_LOG(0, "unknown timer type {}", type);
        errno = EINVAL;
        return -1;
    }
    const int fd = ::timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
    if (fd < 0)
        NK_LOG(0, "timerfd_create: {}", std::strerror(errno));
    return fd;
}

int timer_start(int fd, long value, long interval, bool absolute) {
    if (value < 0 || interval < 0) {
        NK_LOG(0, "negative timer value {} or interval {} (fd {})", value, interval, fd);
        errno = EINVAL;
        return -1;
    }
    itimerspec spec{};
    spec.it_value = first_expiry(timespec{value, 0});
    spec.it_interval = timespec{interval, 0};
    return start(fd, spec, absolute);
}

int timer_start_ms(int fd, long value_ms, long interval_ms, bool absolute) {
    if (value_ms < 0 || interval_ms < 0) {
        NK_LOG(0, "negative timer value {} ms or interval {} ms (fd {})", value_ms, interval_ms,
               fd);
        errno = EINVAL;
        return -1;
    }
    itimerspec spec{};
    spec.it_value = first_expiry(from_ms(value_ms));
    spec.it_interval = from_ms(interval_ms);
    return start(fd, spec, absolute);
}

int timer_stop(int fd) {
    const itimerspec disarmed{};
    return arm(fd, disarmed, false);
}

std::uint64_t timer_tick(int fd) {
    std::uint64_t expirations = 0;
    ssize_t n = 0;
    do {
        n = ::read(fd, &expirations, sizeof expirations);
    } while (n < 0 && errno == EINTR);
    if (n == static_cast<ssize_t>(sizeof expirations))
        return expirations;
    if (n < 0 && errno != EAGAIN)
        NK_LOG(0, "cannot read timer fd {}: {}", fd, std::strerror(errno));
    return 0;
}

bool timer_is_armed(int fd) {
    itimerspec spec{};
    if (::timerfd_gettime(fd, &spec) != 0) {
        NK_LOG(0, "cannot query timer fd {}: {}", fd, std::strerror(errno));
        return false;
    }
    return is_set(spec.it_value);
}

void timer_uninit(int fd) {
    if (fd >= 0)
        ::close(fd);
}

std::optional<Timer> Timer::make(int type) {
    const int fd = timer_init(type);
    if (fd < 0)
        return std::nullopt;
    return Timer(fd);
}

Timer::~Timer() {
    timer_uninit(fd_);
}

Timer::Timer(Timer&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}

Timer& Timer::operator=(Timer&& other) noexcept {
    if (this != &other) {
        timer_uninit(fd_);
        fd_ = std::exchange(other.fd_, -1);
    }
    return *this;
}

}  // namespace nk::time
