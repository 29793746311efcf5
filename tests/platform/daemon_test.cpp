#include "nk/daemon.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <climits>
#include <csignal>
#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

#include "nk/io.h"
#include "table.h"
#include "wait.h"

namespace {

constexpr int kRunCalled = 42;

struct Child {
    pid_t pid = -1;
    nk::io::unique_fd report;  // what the child wrote to its report descriptor
};

// A frame is one per process, so each case builds its own in a forked child. The child's
// run function gets the report descriptor; with `capture` the child's stdio goes there too.
Child run_frame(std::vector<std::string> args, std::function<int(int)> body, bool capture) {
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0)
        return {};
    Child child{::fork(), nk::io::unique_fd(fds[0])};
    if (child.pid != 0) {
        ::close(fds[1]);
        return child;
    }
    if (capture) {
        ::dup2(fds[1], STDOUT_FILENO);
        ::dup2(fds[1], STDERR_FILENO);
    }
    args.insert(args.begin(), "frame-test");
    std::vector<char*> argv;
    for (std::string& a : args)
        argv.push_back(a.data());
    argv.push_back(nullptr);
    nk::daemon::Instance& frame =
        nk::daemon::instance(static_cast<int>(args.size()), argv.data(), "frame-test");
    frame.set_run([&] { return body(fds[1]); });
    const int status = frame.run();
    std::fflush(nullptr);
    ::_exit(status);
}

std::string read_all(int fd) {
    std::string text;
    char buf[4096];
    for (ssize_t n; (n = ::read(fd, buf, sizeof buf)) > 0;)
        text.append(buf, n);
    return text;
}

void put(int fd, const std::string& text) {
    (void)!::write(fd, text.data(), text.size());
}

// In the foreground the run function sees the options in the environment and runs until a
// stop signal, then its status is the program's.
TEST(DaemonFrame, RunsUntilAStopSignal) {
    const auto run = [](int report) {
        std::string env;
        for (const char* var : {"NK_SETTINGS_DIR", "NK_DEVMGMT_DIR", "NKEX_BROKER", "NK_LOG_LEVEL"})
            env += std::string(std::getenv(var) ? std::getenv(var) : "-") + " ";
        put(report, env);
        pollfd p{nk::daemon::instance(0, nullptr, "").on_stop_pipe(), POLLIN, 0};
        while (::poll(&p, 1, -1) < 0 && errno == EINTR) {
        }
        return 0;
    };
    for (const int sig : {SIGTERM, SIGINT, SIGHUP}) {
        SCOPED_TRACE(sig);
        Child child = run_frame({"-f", "--settings", "/tmp/s", "--devmgmt", "/tmp/d", "--broker",
                                 "tcp:localhost:1883", "--log-level", "3"},
                                run, false);
        ASSERT_GT(child.pid, 0);
        ASSERT_TRUE(nk::test::wait_readable(child.report.get()));
        char buf[256] = {};
        EXPECT_GT(::read(child.report.get(), buf, sizeof buf - 1), 0);
        EXPECT_STREQ(buf, "/tmp/s /tmp/d tcp:localhost:1883 3 ");
        ASSERT_EQ(::kill(child.pid, sig), 0);
        EXPECT_EQ(nk::test::reap(child.pid), 0);
    }
}

// A usage error names what was wrong and gives the short usage, never the whole help.
TEST(DaemonFrame, EarlyExitsSkipTheRunFunction) {
    for (const auto& row : nk::test::Table(NK_TEST_DATA "/daemon.json", "early_exit")) {
        SCOPED_TRACE(row.text());
        Child child = run_frame(
            row.strs("args"), [](int) { return kRunCalled; }, true);
        ASSERT_GT(child.pid, 0);
        const std::string output = read_all(child.report.get());
        EXPECT_NE(output.find(row.str("output")), std::string::npos) << output;
        if (row.num("status") != 0) {
            EXPECT_NE(output.find("Try 'frame-test --help'"), std::string::npos) << output;
            EXPECT_EQ(output.find("Options:"), std::string::npos) << output;
        }
        EXPECT_EQ(nk::test::reap(child.pid), row.num("status"));
    }
}

TEST(DaemonFrame, DetachesIntoANewSession) {
    const pid_t test_pid = ::getpid();
    const auto report_detached = [test_pid](int report) {
        char cwd[PATH_MAX] = {};
        char out[PATH_MAX] = {};
        const bool ok = ::getcwd(cwd, sizeof cwd) != nullptr &&
                        ::readlink("/proc/self/fd/1", out, sizeof out - 1) > 0;
        put(report, std::string(ok ? "" : "error ") + cwd + " " + out +
                        (::getsid(0) == ::getpid() ? " leader" : " member") +
                        (::getsid(0) == ::getsid(test_pid) ? " old-session" : " new-session"));
        return 0;
    };
    Child child = run_frame({}, report_detached, false);
    ASSERT_GT(child.pid, 0);
    EXPECT_EQ(nk::test::reap(child.pid), 0);
    // The daemon holds the report pipe until its run function returns.
    EXPECT_EQ(read_all(child.report.get()), "/ /dev/null member new-session");
}

}  // namespace
