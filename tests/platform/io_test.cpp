#include "nk/io.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace {

using nk::io::unique_fd;

int ready(int set, int* fd) {
    epoll_event event{};
    const int n = ::epoll_wait(set, &event, 1, 0);
    if (n == 1)
        *fd = event.data.fd;
    return n;
}

TEST(Epoll, AddTwiceDeleteAbsentAndReadiness) {
    const unique_fd set(::epoll_create1(EPOLL_CLOEXEC));
    int ends[2];
    ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
    const unique_fd rd(ends[0]), wr(ends[1]);

    ASSERT_EQ(nk::io::epoll_set_fd_ro(set.get(), rd.get()), 0);
    EXPECT_EQ(nk::io::epoll_set_fd_ro(set.get(), rd.get()), 0);
    int fd = -1;
    EXPECT_EQ(ready(set.get(), &fd), 0);

    ASSERT_EQ(::write(wr.get(), "x", 1), 1);
    ASSERT_EQ(ready(set.get(), &fd), 1);
    EXPECT_EQ(fd, rd.get());

    EXPECT_EQ(nk::io::epoll_del_fd(set.get(), rd.get()), 0);
    EXPECT_EQ(ready(set.get(), &fd), 0);
    EXPECT_EQ(nk::io::epoll_del_fd(set.get(), rd.get()), 0);
}

}  // namespace
