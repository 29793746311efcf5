// Child programs with their output read line by line, stopped and restarted; and the frame
// every program of the project runs in.
#include "nk/subprocess.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <climits>
#include <csignal>
#include <functional>
#include <regex>

#include "nk/daemon.h"
#include "nk/io.h"
#include "tables.h"
#include "wait.h"

namespace {

using nk::Subprocess;
using Lines = std::vector<std::string>;

std::unique_ptr<Subprocess> shell(const std::string& script) {
    return Subprocess::create(Subprocess::Type::LEASES, "sh", "/bin/sh", {"-c", script});
}

// Everything the child writes, until it closes its output.
Lines read_to_end(Subprocess& p) {
    Lines all;
    while (p.fd() >= 0 && nk::test::wait_readable(p.fd())) {
        for (std::string& line : p.recv())
            all.push_back(std::move(line));
    }
    return all;
}

bool no_children_left() {
    return ::waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD;
}

TEST(Subprocess, ReadsLinesUntilExitThenReaps) {
    for (const auto& row : nk::test::Table(NK_TEST_DATA "/subprocess.json", "lines")) {
        SCOPED_TRACE(row.text());
        const auto p = shell(row.str("script"));
        ASSERT_TRUE(p && p->start());
        EXPECT_EQ(read_to_end(*p), row.strs("lines"));
        EXPECT_EQ(p->pid(), 0);
        EXPECT_EQ(p->failures(), 1);
        EXPECT_TRUE(no_children_left());
    }
}

TEST(Subprocess, StopKillsAChildThatIgnoresTerm) {
    const auto p = shell("trap '' TERM; echo ready; exec sleep 30");
    ASSERT_TRUE(p && p->start());
    ASSERT_TRUE(nk::test::wait_readable(p->fd()));
    ASSERT_EQ(p->recv(), Lines{"ready"});
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_TRUE(p->stop(true));
    const auto took = std::chrono::steady_clock::now() - begin;
    EXPECT_GE(took, std::chrono::milliseconds(900));
    EXPECT_LT(took, std::chrono::seconds(3));
    EXPECT_EQ(p->failures(), 0);
    EXPECT_TRUE(no_children_left());
}

TEST(Subprocess, MissingCommandIsAFailedStart) {
    const auto p = Subprocess::create(Subprocess::Type::GENERIC, "x", "/nonexistent/prog", {});
    ASSERT_TRUE(p);
    EXPECT_FALSE(p->start());
    EXPECT_EQ(p->failures(), 1);
    EXPECT_GT(p->started_at(), 0);
    EXPECT_TRUE(no_children_left());
    EXPECT_FALSE(Subprocess::create(Subprocess::Type::GENERIC, "x", "", {}));
}

// The child starts clean even when the parent leaks a descriptor and changes its signals.
TEST(Subprocess, ChildGetsNoDescriptorsAndDefaultSignals) {
    const nk::io::unique_fd leaked(::open("/dev/null", O_RDONLY));  // no O_CLOEXEC on purpose
    sigset_t usr1, old_mask;
    sigemptyset(&usr1);
    sigaddset(&usr1, SIGUSR1);
    ::pthread_sigmask(SIG_BLOCK, &usr1, &old_mask);
    const auto old_pipe = std::signal(SIGPIPE, SIG_IGN);
    // Not through sh, which clears its signal mask itself.
    const auto p = Subprocess::create(Subprocess::Type::GENERIC, "sleep", "/bin/sleep", {"30"});
    const bool started = p->start();  // returns once the exec is done
    std::signal(SIGPIPE, old_pipe);
    ::pthread_sigmask(SIG_SETMASK, &old_mask, nullptr);
    ASSERT_TRUE(leaked && started);

    const std::string proc = "/proc/" + std::to_string(p->pid());
    EXPECT_NE(::access((proc + "/fd/" + std::to_string(leaked.get())).c_str(), F_OK), 0);
    // Signals 1 to 31 only: glibc's posix_spawn leaves its own (32, 33) ignored, and under
    // qemu-user the emulator's own come above them.
    const std::string status = nk::test::read_data(proc + "/status");
    EXPECT_TRUE(std::regex_search(status, std::regex("\\nSigBlk:\\s+0{16}\\n"))) << status;
    EXPECT_TRUE(std::regex_search(status, std::regex("\\nSigIgn:\\s+[0-9a-f]{8}[08]0{7}\\n")))
        << status;
}

TEST(Subprocess, RestartGivesANewProcess) {
    const auto p = shell("exec sleep 30");
    ASSERT_TRUE(p && p->start());
    const pid_t first = p->pid();
    EXPECT_TRUE(p->start());  // already running: no second child
    EXPECT_EQ(p->pid(), first);
    ASSERT_TRUE(p->restart());
    EXPECT_GT(p->pid(), 0);
    EXPECT_NE(p->pid(), first);
    EXPECT_EQ(p->failures(), 0);
}

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
    return nk::test::read_data("/proc/self/fd/" + std::to_string(fd));
}

// In the foreground the run function sees the options in the environment and runs until a
// stop signal, then its status is the program's.
TEST(DaemonFrame, RunsUntilAStopSignal) {
    const auto run = [](int report) {
        std::string env;
        for (const char* var : {"NK_SETTINGS_DIR", "NK_DEVMGMT_DIR", "NKEX_BROKER", "NK_LOG_LEVEL"})
            env += std::string(std::getenv(var) ? std::getenv(var) : "-") + " ";
        ::dprintf(report, "%s", env.c_str());
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
        ASSERT_EQ(::kill(child.pid, sig), 0);
        EXPECT_EQ(nk::test::reap(child.pid), 0);
        EXPECT_EQ(read_all(child.report.get()), "/tmp/s /tmp/d tcp:localhost:1883 3 ");
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
        ::dprintf(report, "%s%s %s %s %s", ok ? "" : "error ", cwd, out,
                  ::getsid(0) == ::getpid() ? "leader" : "member",
                  ::getsid(0) == ::getsid(test_pid) ? "old-session" : "new-session");
        return 0;
    };
    Child child = run_frame({}, report_detached, false);
    ASSERT_GT(child.pid, 0);
    EXPECT_EQ(nk::test::reap(child.pid), 0);
    // The daemon holds the report pipe until its run function returns.
    EXPECT_EQ(read_all(child.report.get()), "/ /dev/null member new-session");
}

}  // namespace
