// The nkdevinfo program as the daemon runs it: its lines on a pipe while the lease file is
// written, rewritten and damaged, and how it stops. The loopback interface plays the LAN, so
// no privilege is needed.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include <nk/io.h>
#include <nk/json.h>

#include "temp_dir.h"
#include "wait.h"

extern char** environ;

namespace {

using namespace std::chrono_literals;

// The collector with its output on a pipe of the test.
class Collector {
public:
    explicit Collector(const std::vector<std::string>& args) {
        int fds[2];
        EXPECT_EQ(::pipe2(fds, O_CLOEXEC), 0);
        out_.reset(fds[0]);
        const nk::io::unique_fd write_end(fds[1]);
        posix_spawn_file_actions_t actions;
        ::posix_spawn_file_actions_init(&actions);
        ::posix_spawn_file_actions_adddup2(&actions, write_end.get(), STDOUT_FILENO);
        std::vector<char*> argv;
        for (const std::string& a : args)
            argv.push_back(const_cast<char*>(a.c_str()));
        argv.push_back(nullptr);
        EXPECT_EQ(::posix_spawn(&pid_, args[0].c_str(), &actions, nullptr, argv.data(), environ),
                  0);
        ::posix_spawn_file_actions_destroy(&actions);
    }
    ~Collector() {
        if (pid_ > 0) {
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, nullptr, 0);
        }
    }

    // The next line written, or "" when none came in time.
    std::string line(std::chrono::milliseconds timeout = 5s) {
        for (;;) {
            const auto newline = buffer_.find('\n');
            if (newline != std::string::npos) {
                std::string line = buffer_.substr(0, newline);
                buffer_.erase(0, newline + 1);
                return line;
            }
            if (!nk::test::wait_readable(out_.get(), timeout))
                return {};
            char buf[65536];
            const ssize_t n = ::read(out_.get(), buf, sizeof buf);
            if (n <= 0)
                return {};
            buffer_.append(buf, static_cast<std::size_t>(n));
        }
    }
    void close_output() { out_.reset(); }
    // The exit status, or -1 when it did not exit in time.
    int exit_status(std::chrono::milliseconds timeout = 2s) {
        int status = 0;
        const bool exited = nk::test::wait_until(
            [&] { return ::waitpid(pid_, &status, WNOHANG) == pid_; }, timeout);
        if (!exited)
            return -1;
        pid_ = 0;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
    pid_t pid() const { return pid_; }

private:
    pid_t pid_ = 0;
    nk::io::unique_fd out_;
    std::string buffer_;
};

// The MACs of a "leases" line.
std::vector<std::string> macs(const std::string& line) {
    const nk::json_ptr json(json_loads(line.c_str(), 0, nullptr));
    const json_t* leases = nk::json_object_get_recursive(json.get(), {"data", "leases"});
    std::vector<std::string> out;
    for (std::size_t i = 0; i < json_array_size(leases); ++i)
        out.push_back(nk::json_string_member(json_array_get(leases, i), "mac"));
    std::sort(out.begin(), out.end());
    return out;
}

class CollectorProcessTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(::mkdir(settings_.c_str(), 0755), 0);
        ASSERT_EQ(nkset("set /network/interfaces/roles/lo lan"), 0);
        ASSERT_EQ(nkset("set /network/dhcp/lease_files " + leases_), 0);
    }
    int nkset(const std::string& command) {
        return nk::test::run_command(std::string(NK_NKSET_BIN) + " --settings " + settings_ + " " +
                                     command);
    }
    // Written the way dnsmasq does: truncated, then rewritten in place.
    void rewrite(const std::string& text) { std::ofstream(leases_, std::ios::trunc) << text; }

    nk::test::TempDir dir_;
    std::string settings_ = dir_ / "settings";
    std::string leases_ = dir_ / "dnsmasq.leases";
    nk::test::ScopedEnv env_{"NK_SETTINGS_DIR", settings_};
};

const std::string kLaptop = "0 00:00:5e:00:53:3a 127.0.0.8 laptop *\n";
const std::string kCamera = "0 00:00:5e:00:53:ed 127.0.0.9 camera 01:00:00:5e:00:53:ed\n";

TEST_F(CollectorProcessTest, FollowsTheLeaseFileWithWholeLeasesOnly) {
    Collector c({NK_NKDEVINFO_BIN, "-internal"});
    // At once, with no lease file yet: the daemon waits for a first snapshot.
    EXPECT_TRUE(macs(c.line()).empty());

    rewrite(kLaptop);
    EXPECT_EQ(macs(c.line()), std::vector<std::string>{"00:00:5e:00:53:3a"});

    // A file left half written: once it stays so, its whole leases are the truth; the half
    // line is never reported as a lease.
    rewrite(kCamera + kLaptop.substr(0, 20));
    const std::string torn = c.line();
    EXPECT_EQ(macs(torn), std::vector<std::string>{"00:00:5e:00:53:ed"}) << torn;
    rewrite(kLaptop + kCamera + "garbage\n");
    EXPECT_EQ(macs(c.line()), (std::vector<std::string>{"00:00:5e:00:53:3a", "00:00:5e:00:53:ed"}));

    rewrite(kLaptop);
    EXPECT_EQ(macs(c.line()), std::vector<std::string>{"00:00:5e:00:53:3a"});
    ASSERT_EQ(::kill(c.pid(), SIGTERM), 0);
    EXPECT_EQ(c.exit_status(), 0);
}

TEST_F(CollectorProcessTest, ExitsOnceTheDaemonStopsReading) {
    Collector c({NK_NKDEVINFO_BIN, "-internal"});
    ASSERT_FALSE(c.line().empty());
    c.close_output();
    EXPECT_EQ(c.exit_status(), 0);
}

TEST_F(CollectorProcessTest, CommandLine) {
    const std::string bin = NK_NKDEVINFO_BIN;
    const struct {
        std::string args;
        int status;
        std::string output;
    } cases[] = {
        {"--version", 0, "nkdevinfo "},
        {"", 64, "-internal or -external is required"},
        {"-internal -external", 64, "exclude each other"},
        {"-internal --bogus", 64, "unknown option '--bogus'"},
        {"-internal --log-level 7", 64, "0 to 4"},
        {"-internal stray", 64, "unexpected argument 'stray'"},
        {"-internal --settings " + dir_ / "none", 1, "no settings store at " + dir_ / "none"},
        {"-internal --once", 0, R"({"type":"leases","data":{"leases":[],"mangled_macs":[]}})"},
    };
    for (const auto& c : cases) {
        std::string out;
        EXPECT_EQ(nk::test::run_command(bin + " " + c.args + " 2>&1", &out), c.status) << c.args;
        EXPECT_NE(out.find(c.output), std::string::npos) << c.args << ": " << out;
    }
}

}  // namespace
