// timerfd timers on CLOCK_MONOTONIC. A first value of 0 fires at once; it never disarms.
#pragma once

#include <cstdint>
#include <optional>

namespace nk::time {

// Both types are monotonic; the daemon uses 0 for loop timers and 1 for owned ones.
enum TimerType : int { TIMER_LOOP = 0, TIMER_OWNED = 1 };

// A non-blocking, close-on-exec timer descriptor, or -1.
int timer_init(int type);
// Seconds; `absolute` takes `value` as a point on the monotonic clock. 0 or -1.
// A timer already running with the same interval keeps its next expiry; a stopped one, or a
// new interval, is armed afresh.
int timer_start(int fd, long value, long interval, bool absolute);
int timer_start_ms(int fd, long value_ms, long interval_ms, bool absolute);
int timer_stop(int fd);
// The expirations since the last tick, 0 when none.
std::uint64_t timer_tick(int fd);
bool timer_is_armed(int fd);
void timer_uninit(int fd);

// An owning timer.
class Timer {
public:
    static std::optional<Timer> make(int type);
    ~Timer();
    Timer(Timer&& other) noexcept;
    Timer& operator=(Timer&& other) noexcept;
    Timer(const Timer&) = delete;
    Timer& operator=(const Timer&) = delete;

    int fd() const { return fd_; }
    bool start(long value, long interval) { return timer_start(fd_, value, interval, false) == 0; }
    bool start_ms(long value_ms, long interval_ms) {
        return timer_start_ms(fd_, value_ms, interval_ms, false) == 0;
    }
    bool stop() { return timer_stop(fd_) == 0; }
    bool is_running() const { return timer_is_armed(fd_); }
    std::uint64_t tick() { return timer_tick(fd_); }

private:
    explicit Timer(int fd) : fd_(fd) {}
    int fd_ = -1;
};

}  // namespace nk::time
