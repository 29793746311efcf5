// The real daemon binary against a private broker, settings store and device table.
#include <signal.h>
#include <sys/stat.h>

#include <gtest/gtest.h>

#include <fstream>

#include <nk/nkex.h>

#include "daemon_process.h"
#include "temp_dir.h"
#include "test_broker.h"

namespace {

using namespace std::chrono_literals;
using nk::test::DaemonProcess;

class DaemonRunTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(broker_.start()); }

    std::vector<std::string> args(const std::string& settings) const {
        return {NK_DAEMON_BIN,    "-f",       "--settings",      settings,      "--devmgmt",
                dir_ / "devmgmt", "--broker", broker_.address(), "--log-level", "4"};
    }
    bool start(const std::string& settings) { return daemon_.start(args(settings)); }
    bool start() { return start(settings_); }
    int nkset(const std::string& command) {
        return nk::test::run_command(std::string(NK_NKSET_BIN) + " --settings " + settings_ + " " +
                                     command);
    }

    nk::test::TempDir dir_;
    std::string settings_ = dir_ / "settings";
    nk::test::TestBroker broker_{dir_.path()};
    nk::test::ScopedEnv libexec_{"NK_LIBEXEC_DIR", dir_.path()};
    DaemonProcess daemon_;
};

TEST_F(DaemonRunTest, ReadyThenExitsCleanlyOnSignal) {
    for (const int sig : {SIGTERM, SIGINT}) {
        DaemonProcess daemon;
        ASSERT_TRUE(daemon.start(args(settings_)));
        ASSERT_TRUE(daemon.wait_for_line("disco ready"));
        EXPECT_EQ(daemon.stop(sig, 1s), 0) << "signal " << sig;
        EXPECT_EQ(daemon.count_lines("exiting"), 1);
    }
}

TEST_F(DaemonRunTest, StartUpFailuresExitWithStatusOne) {
    // A settings root below a regular file can never be created.
    std::ofstream(dir_ / "file") << "x";
    ASSERT_TRUE(start(dir_ / "file/settings"));
    EXPECT_EQ(daemon_.wait_exit(), 1);
    EXPECT_EQ(daemon_.count_lines("nksetmgmt error"), 1);
    EXPECT_EQ(daemon_.count_lines("disco ready"), 0);
}

TEST_F(DaemonRunTest, UnknownLeasesModeEndsStartUp) {
    ASSERT_EQ(nkset("set /network/dhcp/leases_mode 2"), 0);
    ASSERT_TRUE(start());
    EXPECT_EQ(daemon_.wait_exit(), 1);
    EXPECT_EQ(daemon_.count_lines("nkleases mode: 2"), 1);
    EXPECT_EQ(daemon_.count_lines("disco ready"), 0);
}

TEST_F(DaemonRunTest, NoBrokerEndsStartUp) {
    broker_.stop();
    ASSERT_TRUE(start());
    EXPECT_EQ(daemon_.wait_exit(), 1);
    EXPECT_EQ(daemon_.count_lines("nkex_init()"), 1);
}

TEST_F(DaemonRunTest, EverySubscribedEventReachesTheDispatcher) {
    ASSERT_TRUE(start());
    ASSERT_TRUE(daemon_.wait_for_line("disco ready"));
    nk::test::ScopedEnv broker_env("NKEX_BROKER", broker_.address());
    nkex_handle* client = nkex_init("tester", nullptr, nullptr, 1);
    ASSERT_NE(client, nullptr);
    for (const char* name : {"devmgmt:device_inventory", "sifter_user_agent", "sifter_dhcp_payload",
                             "request_device_id", "device_not_found"}) {
        const std::string seen = std::string("nkex message: name=") + name + ",";
        // The subscription may still be on its way: send until the daemon has seen one.
        bool delivered = false;
        for (int i = 0; i < 25 && !delivered; ++i) {
            ASSERT_EQ(nkex_send_message(client, name, "{}", 2), 0);
            delivered = daemon_.wait_for_line(seen, 200ms);
        }
        EXPECT_TRUE(delivered) << name;
    }
    nkex_uninit(client);
    EXPECT_EQ(daemon_.count_lines("unhandled nkex message"), 0);
    EXPECT_EQ(daemon_.stop(SIGTERM), 0);
}

TEST_F(DaemonRunTest, FeatureChangesApplyWhileRunning) {
    ASSERT_TRUE(start());
    ASSERT_TRUE(daemon_.wait_for_line("disco ready"));
    ASSERT_EQ(nkset("set /features/ids/0 1"), 0);
    EXPECT_TRUE(daemon_.wait_for_line("Feature 0 changed to 1"));
    ASSERT_EQ(nkset("set /features/ids/1 1"), 0);
    EXPECT_TRUE(daemon_.wait_for_line("Feature 1 changed to 1"));
    ASSERT_EQ(nkset("set /features/ids/0 0"), 0);
    EXPECT_TRUE(daemon_.wait_for_line("Feature 0 changed to 0"));
    EXPECT_EQ(daemon_.stop(SIGTERM), 0);
}

}  // namespace
