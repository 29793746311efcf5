#include "nk/timer.h"

#include <fcntl.h>
#include <sys/timerfd.h>

#include <gtest/gtest.h>

#include <ctime>
#include <utility>

#include "wait.h"

namespace {

using namespace nk::time;

itimerspec setting(int fd) {
    itimerspec spec{};
    EXPECT_EQ(::timerfd_gettime(fd, &spec), 0);
    return spec;
}

TEST(Timer, DescriptorFlagsAndOwnership) {
    std::optional<Timer> first = Timer::make(TIMER_OWNED);
    ASSERT_TRUE(first);
    const int fd = first->fd();
    EXPECT_TRUE(::fcntl(fd, F_GETFD) & FD_CLOEXEC);
    EXPECT_TRUE(::fcntl(fd, F_GETFL) & O_NONBLOCK);
    EXPECT_FALSE(first->is_running());
    EXPECT_FALSE(Timer::make(7));
    // The last owner closes.
    { const Timer moved = std::move(*first); }
    EXPECT_EQ(first->fd(), -1);
    EXPECT_EQ(::fcntl(fd, F_GETFD), -1);
}

TEST(Timer, ZeroFirstValueFiresAtOnceThenRepeatsAndStopDisarms) {
    std::optional<Timer> timer = Timer::make(TIMER_LOOP);
    ASSERT_TRUE(timer && timer->start(0, 2));
    ASSERT_TRUE(nk::test::wait_readable(timer->fd()));
    EXPECT_EQ(timer->tick(), 1u);
    EXPECT_TRUE(timer->is_running());
    const itimerspec spec = setting(timer->fd());
    EXPECT_EQ(spec.it_interval.tv_sec, 2);
    EXPECT_EQ(spec.it_interval.tv_nsec, 0);
    EXPECT_LE(spec.it_value.tv_sec, 2);

    // Unexpired: no tick; stopping disarms.
    ASSERT_TRUE(timer->start(60, 60));
    EXPECT_EQ(timer->tick(), 0u);
    EXPECT_TRUE(timer->is_running());
    EXPECT_TRUE(timer->stop());
    EXPECT_FALSE(timer->is_running());
    EXPECT_EQ(setting(timer->fd()).it_interval.tv_sec, 0);
}

// The loop re-arms its timers at every turn and relies on this to keep their cadence.
TEST(Timer, StartingAgainKeepsARunningTimerWithTheSameInterval) {
    struct Case {
        const char* name;
        bool stop_first;
        long interval;
        bool fires_at_once;
    } const cases[] = {
        {"same interval", false, 60, false},
        {"new interval", false, 30, true},
        {"stopped", true, 60, true},
    };
    for (const Case& c : cases) {
        std::optional<Timer> timer = Timer::make(TIMER_LOOP);
        ASSERT_TRUE(timer && timer->start(60, 60));
        if (c.stop_first) {
            ASSERT_TRUE(timer->stop());
        }
        ASSERT_TRUE(timer->start(0, c.interval)) << c.name;
        if (c.fires_at_once) {
            EXPECT_TRUE(nk::test::wait_readable(timer->fd())) << c.name;
        } else {
            EXPECT_GE(setting(timer->fd()).it_value.tv_sec, 59) << c.name;
        }
        EXPECT_EQ(timer->tick(), c.fires_at_once ? 1u : 0u) << c.name;
        EXPECT_EQ(setting(timer->fd()).it_interval.tv_sec, c.interval) << c.name;
    }
    // A one-shot timer that has fired is stopped, so it can be started again.
    std::optional<Timer> once = Timer::make(TIMER_LOOP);
    ASSERT_TRUE(once && once->start_ms(1, 0));
    ASSERT_TRUE(nk::test::wait_readable(once->fd()));
    EXPECT_EQ(once->tick(), 1u);
    ASSERT_TRUE(once->start_ms(1, 0));
    ASSERT_TRUE(nk::test::wait_readable(once->fd()));
    EXPECT_EQ(once->tick(), 1u);
}

TEST(Timer, MillisecondTicksAccumulate) {
    std::optional<Timer> fast = Timer::make(TIMER_LOOP);
    std::optional<Timer> later = Timer::make(TIMER_LOOP);
    ASSERT_TRUE(fast && later);
    ASSERT_TRUE(fast->start_ms(1, 1));
    ASSERT_TRUE(later->start_ms(20, 0));
    ASSERT_TRUE(nk::test::wait_readable(later->fd()));
    // Armed first with a 1 ms period, `fast` has expired at least 20 times by now.
    EXPECT_GE(fast->tick(), 20u);
}

}  // namespace
