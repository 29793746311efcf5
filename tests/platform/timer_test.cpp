// Timers and epoll sets on real descriptors.
#include "nk/timer.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "nk/io.h"
#include "tables.h"
#include "wait.h"

namespace {

using namespace nk::time;
using nk::test::wait_readable;

itimerspec setting(const Timer& timer) {
    itimerspec spec{};
    EXPECT_EQ(::timerfd_gettime(timer.fd(), &spec), 0);
    return spec;
}

TEST(Timer, DescriptorFlagsAndOwnership) {
    std::optional<Timer> first = Timer::make(TIMER_OWNED);
    ASSERT_TRUE(first);
    const int fd = first->fd();
    EXPECT_TRUE(::fcntl(fd, F_GETFD) & FD_CLOEXEC);
    EXPECT_TRUE(::fcntl(fd, F_GETFL) & O_NONBLOCK);
    EXPECT_FALSE(Timer::make(7));
    { const Timer moved = std::move(*first); }  // the last owner closes
    EXPECT_EQ(first->fd(), -1);
    EXPECT_EQ(::fcntl(fd, F_GETFD), -1);
}

// The loop re-arms its timers at every turn and relies on a running timer with the same
// interval being kept, to keep its cadence.
TEST(Timer, ZeroFirstValueFiresAtOnceUnlessRunningWithTheSameInterval) {
    for (const auto& row : nk::test::Table(NK_TEST_DATA "/timer.json", "restart_at_zero")) {
        SCOPED_TRACE(row.text());
        const long interval = row.num("interval");
        const bool fires_at_once = row.flag("fires_at_once");
        std::optional<Timer> timer = Timer::make(TIMER_LOOP);
        ASSERT_TRUE(timer && timer->start(60, 60));
        EXPECT_EQ(timer->tick(), 0u);  // unexpired
        if (row.flag("stop_first")) {
            ASSERT_TRUE(timer->stop());
            EXPECT_FALSE(timer->is_running());
            EXPECT_EQ(setting(*timer).it_interval.tv_sec, 0);
        }
        ASSERT_TRUE(timer->start(0, interval));
        if (fires_at_once) {
            EXPECT_TRUE(wait_readable(timer->fd()));
        } else {
            EXPECT_GE(setting(*timer).it_value.tv_sec, 59);
        }
        EXPECT_EQ(timer->tick(), fires_at_once ? 1u : 0u);
        EXPECT_TRUE(timer->is_running());
        EXPECT_EQ(setting(*timer).it_interval.tv_sec, interval);
        EXPECT_EQ(setting(*timer).it_interval.tv_nsec, 0);
    }
    // A one-shot timer that has fired is stopped, so it can be started again.
    std::optional<Timer> once = Timer::make(TIMER_LOOP);
    for (int round = 0; round < 2; ++round) {
        ASSERT_TRUE(once && once->start_ms(1, 0));
        ASSERT_TRUE(wait_readable(once->fd()));
        EXPECT_EQ(once->tick(), 1u);
    }
}

TEST(Timer, MillisecondTicksAccumulate) {
    std::optional<Timer> fast = Timer::make(TIMER_LOOP);
    std::optional<Timer> later = Timer::make(TIMER_LOOP);
    ASSERT_TRUE(fast && later && fast->start_ms(1, 1) && later->start_ms(20, 0));
    ASSERT_TRUE(wait_readable(later->fd()));
    // Armed first with a 1 ms period, `fast` has expired at least 20 times by now.
    EXPECT_GE(fast->tick(), 20u);
}

TEST(Epoll, AddTwiceDeleteAbsentAndReadiness) {
    const nk::io::unique_fd set(::epoll_create1(EPOLL_CLOEXEC));
    int ends[2];
    ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
    const nk::io::unique_fd rd(ends[0]), wr(ends[1]);
    epoll_event event{};
    ASSERT_EQ(nk::io::epoll_set_fd_ro(set.get(), rd.get()), 0);
    EXPECT_EQ(nk::io::epoll_set_fd_ro(set.get(), rd.get()), 0);
    EXPECT_EQ(::epoll_wait(set.get(), &event, 1, 0), 0);
    ASSERT_EQ(::write(wr.get(), "x", 1), 1);
    ASSERT_EQ(::epoll_wait(set.get(), &event, 1, 0), 1);
    EXPECT_EQ(event.data.fd, rd.get());
    EXPECT_EQ(nk::io::epoll_del_fd(set.get(), rd.get()), 0);
    EXPECT_EQ(::epoll_wait(set.get(), &event, 1, 0), 0);
    EXPECT_EQ(nk::io::epoll_del_fd(set.get(), rd.get()), 0);
}

}  // namespace
