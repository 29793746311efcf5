// Child programs with their output read line by line, stopped and restarted.
#include "nk/subprocess.h"

#include <fcntl.h>
#include <sys/wait.h>

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <fstream>
#include <map>

#include "nk/io.h"
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
    const struct {
        const char* script;
        Lines lines;
    } cases[] = {
        {R"(printf "ab"; sleep 0.2; printf "c\n")", {"abc"}},
        {R"(printf "one\ntwo\n\nthree\n")", {"one", "two", "", "three"}},
        {R"(printf "x\ny")", {"x"}},
        {R"(head -c 2100000 /dev/zero | tr '\0' a; echo; echo ok)", {"ok"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.script);
        const auto p = shell(c.script);
        ASSERT_TRUE(p && p->start());
        EXPECT_EQ(read_to_end(*p), c.lines);
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
    std::map<std::string, unsigned long long> masks;
    std::ifstream status(proc + "/status");
    for (std::string line; std::getline(status, line);) {
        const std::size_t colon = line.find(':');
        masks[line.substr(0, colon)] = std::strtoull(line.c_str() + colon + 1, nullptr, 16);
    }
    EXPECT_EQ(masks.at("SigBlk"), 0u);
    // glibc's posix_spawn leaves its own two internal signals (32, 33) ignored.
    EXPECT_EQ(masks.at("SigIgn") & 0x7fffffffu, 0u);
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

}  // namespace
