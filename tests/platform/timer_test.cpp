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

TEST(Timer, DescriptorIsNonBlockingAndCloseOnExec) {
    std::optional<Timer> timer = Timer::make(TIMER_OWNED);
    ASSERT_TRUE(timer);
    EXPECT_TRUE(::fcntl(timer->fd(), F_GETFD) & FD_CLOEXEC);
    EXPECT_TRUE(::fcntl(timer->fd(), F_GETFL) & O_NONBLOCK);
    EXPECT_FALSE(timer->is_running());
    EXPECT_FALSE(Timer::make(7));
}

TEST(Timer, ZeroFirstValueFiresAtOnceThenRepeats) {
    std::optional<Timer> timer = Timer::make(TIMER_LOOP);
    ASSERT_TRUE(timer && timer->start(0, 2));
    ASSERT_TRUE(nk::test::wait_readable(timer->fd()));
    EXPECT_EQ(timer->tick(), 1u);
    EXPECT_TRUE(timer->is_running());
    const itimerspec spec = setting(timer->fd());
    EXPECT_EQ(spec.it_interval.tv_sec, 2);
    EXPECT_EQ(spec.it_interval.tv_nsec, 0);
    EXPECT_LE(spec.it_value.tv_sec, 2);
}

TEST(Timer, UnexpiredTimerTicksZeroAndStopDisarms) {
    std::optional<Timer> timer = Timer::make(TIMER_LOOP);
    ASSERT_TRUE(timer && timer->start(60, 60));
    EXPECT_EQ(timer->tick(), 0u);
    EXPECT_TRUE(timer->is_running());
    EXPECT_TRUE(timer->stop());
    EXPECT_FALSE(timer->is_running());
    EXPECT_EQ(setting(timer->fd()).it_interval.tv_sec, 0);
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

TEST(Timer, OwnershipMovesAndTheLastOwnerCloses) {
    std::optional<Timer> first = Timer::make(TIMER_OWNED);
    ASSERT_TRUE(first);
    const int fd = first->fd();
    { const Timer moved = std::move(*first); }
    EXPECT_EQ(first->fd(), -1);
    EXPECT_EQ(::fcntl(fd, F_GETFD), -1);
}

}  // namespace
