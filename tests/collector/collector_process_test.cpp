// The nkdevinfo program as the daemon runs it: its lines on a pipe while the lease file is
// written, rewritten and damaged, how it stops, and its command line (data/command_lines.tsv).
// The loopback interface plays the LAN, so no privilege is needed.
#include <gtest/gtest.h>

#include <signal.h>

#include <algorithm>
#include <fstream>
#include <string>
#include <vector>

#include <nk/json.h>

#include "daemon_process.h"
#include "tables.h"
#include "temp_dir.h"
#include "wait.h"

namespace {

class CollectorProcessTest : public ::testing::Test {
protected:
    void SetUp() override {
        nk::test::write_setting(settings_, "/network/interfaces/roles/lo", "lan");
        nk::test::write_setting(settings_, "/network/dhcp/lease_files", leases_);
    }
    // Written the way dnsmasq does: truncated, then rewritten in place.
    void rewrite(const std::string& text) { std::ofstream(leases_, std::ios::trunc) << text; }
    // The sorted MACs of the n-th line it wrote (from 1), once it came.
    std::vector<std::string> macs(std::size_t n) {
        std::string line;
        EXPECT_TRUE(nk::test::wait_until([&] {
            std::string log = collector_.log();
            for (std::size_t i = 1; i < n && !log.empty(); ++i)
                log.erase(0, log.find('\n') + 1);
            line = log.substr(0, log.find('\n'));
            return !line.empty();
        })) << "line "
            << n;
        const nk::json_ptr json(json_loads(line.c_str(), 0, nullptr));
        const json_t* leases = nk::json_object_get_recursive(json.get(), {"data", "leases"});
        EXPECT_TRUE(json_is_array(leases)) << line;
        std::vector<std::string> out;
        for (std::size_t i = 0; i < json_array_size(leases); ++i)
            out.push_back(nk::json_string_member(json_array_get(leases, i), "mac"));
        std::sort(out.begin(), out.end());
        return out;
    }

    nk::test::TempDir dir_;
    std::string settings_ = dir_ / "settings";
    std::string leases_ = dir_ / "dnsmasq.leases";
    nk::test::ScopedEnv env_{"NK_SETTINGS_DIR", settings_};
    // Its stdout, the daemon's pipe, is what the test collects; its log is dropped.
    nk::test::DaemonProcess collector_;
};

const std::string kLaptop = "0 00:00:5e:00:53:3a 127.0.0.8 laptop *\n";
const std::string kCamera = "0 00:00:5e:00:53:ed 127.0.0.9 camera 01:00:00:5e:00:53:ed\n";

TEST_F(CollectorProcessTest, FollowsTheLeaseFileWithWholeLeasesOnly) {
    ASSERT_TRUE(collector_.start(
        {"/bin/sh", "-c", "exec " NK_NKDEVINFO_BIN " -internal 1>&2 2>/dev/null"}));
    // At once, with no lease file yet: the daemon waits for a first snapshot.
    EXPECT_TRUE(macs(1).empty());
    rewrite(kLaptop);
    EXPECT_EQ(macs(2), std::vector<std::string>{"00:00:5e:00:53:3a"});
    // A file left half written: once it stays so, its whole leases are the truth; the half
    // line is never reported as a lease.
    rewrite(kCamera + kLaptop.substr(0, 20));
    EXPECT_EQ(macs(3), std::vector<std::string>{"00:00:5e:00:53:ed"});
    rewrite(kLaptop + kCamera + "garbage\n");
    EXPECT_EQ(macs(4), (std::vector<std::string>{"00:00:5e:00:53:3a", "00:00:5e:00:53:ed"}));
    rewrite(kLaptop);
    EXPECT_EQ(macs(5), std::vector<std::string>{"00:00:5e:00:53:3a"});
    EXPECT_EQ(collector_.stop(SIGTERM), 0);
}

TEST_F(CollectorProcessTest, ExitsOnceTheDaemonStopsReading) {
    // head closes the pipe after the first snapshot; pipefail gives the collector's status.
    ASSERT_TRUE(collector_.start({"/bin/bash", "-c",
                                  "set -o pipefail; " NK_NKDEVINFO_BIN
                                  " -internal 2>/dev/null | head -n 1 >&2"}));
    EXPECT_TRUE(collector_.wait_for_line("leases"));
    EXPECT_EQ(collector_.wait_exit(), 0);
}

TEST_F(CollectorProcessTest, CommandLine) {
    nk::test::check_commands(NK_COLLECTOR_DATA "/command_lines.tsv",
                             {{"nkdevinfo", NK_NKDEVINFO_BIN}, {"dir", dir_.path()}});
}

}  // namespace
