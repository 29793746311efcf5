// Watching keys through inotify while real processes change the store.
#include <sys/epoll.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <functional>

#include <nk/io.h>
#include <nk/nkerrno.h>
#include <nk/setmgmt.h>

#include "temp_dir.h"
#include "wait.h"

namespace {

namespace sm = nk::setMgmt;
using namespace std::chrono_literals;

// The other process makes the store when it is not there yet, as an installer would.
int nkset(const std::string& args) {
    return nk::test::run_command("mkdir -p \"$NK_SETTINGS_DIR\" && " + std::string(NK_NKSET_BIN) +
                                 " " + args);
}

class MonitoredKeyTest : public ::testing::Test {
protected:
    nk::test::TempDir dir_;
    nk::test::ScopedEnv env_{"NK_SETTINGS_DIR", dir_ / "store"};
};

TEST_F(MonitoredKeyTest, WakesAnEpollSetWhenAnotherProcessSetsTheKey) {
    // What exists when watching starts: the key, its parent only, nothing (not even the root).
    const std::pair<const char*, const char*> cases[] = {
        {"existing", "/w/k"}, {"absent_key", "/w/other"}, {"absent_root", nullptr}};
    for (const auto& [name, before] : cases) {
        SCOPED_TRACE(name);
        nk::test::ScopedEnv root("NK_SETTINGS_DIR", dir_ / name);
        if (before) {
            ASSERT_EQ(sm::setKey(before, "old"), 0);
        }
        sm::MonitoredKey key("/w/k");
        ASSERT_GE(key.fd(), 0);
        const nk::io::unique_fd epoll(::epoll_create1(EPOLL_CLOEXEC));
        epoll_event ev{EPOLLIN, {}};
        ASSERT_EQ(::epoll_ctl(epoll.get(), EPOLL_CTL_ADD, key.fd(), &ev), 0);
        EXPECT_EQ(::epoll_wait(epoll.get(), &ev, 1, 0), 0);

        // The second write proves the watch followed the path once it appeared.
        for (const char* value : {"new", "newer"}) {
            ASSERT_EQ(nkset(std::string("set /w/k ") + value), 0);
            ASSERT_EQ(::epoll_wait(epoll.get(), &ev, 1, 5000), 1);
            EXPECT_TRUE(key.consume());
            EXPECT_EQ(key.value(), value);
            EXPECT_EQ(::epoll_wait(epoll.get(), &ev, 1, 0), 0);
        }
    }
}

TEST_F(MonitoredKeyTest, ChildrenAndDeletionCount) {
    ASSERT_EQ(sm::setKey("/p/c", "1"), 0);
    sm::MonitoredKey key("/p");
    ASSERT_GE(key.fd(), 0);
    const std::pair<const char*, std::function<int()>> steps[] = {
        {"child value", [] { return sm::setKey("/p/c", "2"); }},
        {"new child", [] { return sm::setKey("/p/new", "x"); }},
        {"value of the new child", [] { return sm::setKey("/p/new", "y"); }},
        {"deleted", [] { return sm::deleteKey("/p"); }},
        {"created again", [] { return sm::setKey("/p", "v"); }},
    };
    for (const auto& [name, change] : steps) {
        SCOPED_TRACE(name);
        ASSERT_EQ(change(), 0);
        ASSERT_TRUE(nk::test::wait_readable(key.fd()));
        EXPECT_TRUE(key.consume());
    }
    EXPECT_EQ(key.value(), "v");

    sm::MonitoredKey bad("/p/");
    EXPECT_EQ(bad.fd(), -1);
    EXPECT_EQ(nkerrno, EINVAL);
}

}  // namespace
