// The nkset command line: exit statuses, output, watching, and holding a lock for a test.
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>

#include <nk/io.h>
#include <nk/nkerrno.h>
#include <nk/setmgmt.h>

#include "daemon_process.h"
#include "table.h"
#include "temp_dir.h"

namespace {

namespace sm = nk::setMgmt;
using namespace std::chrono_literals;

class NksetTest : public ::testing::Test {
protected:
    NksetTest() { std::filesystem::create_directory(root_); }  // nkset never makes the store

    nk::test::TempDir dir_;
    std::string root_ = dir_ / "store";
    nk::test::ScopedEnv env_{"NK_SETTINGS_DIR", root_};
};

TEST_F(NksetTest, ExitStatusesAndOutputOfEachCommand) {
    ASSERT_EQ(sm::lockKey("/held"), 0);
    const auto expand = [this](std::string text) {
        text = std::regex_replace(text, std::regex("\\{dir\\}"), dir_.path());
        return std::regex_replace(text, std::regex("\\{nkset\\}"), NK_NKSET_BIN);
    };
    for (const auto& row : nk::test::Table(NK_TEST_DATA "/nkset.json", "commands")) {
        SCOPED_TRACE(row.text());
        std::string out;
        EXPECT_EQ(nk::test::run_command(std::string(NK_NKSET_BIN) + " " + expand(row.str("args")) +
                                            " 2>" + (dir_ / "err"),
                                        &out),
                  row.num("status"));
        if (row.has("out")) {
            EXPECT_EQ(out, row.str("out"));
        }
        EXPECT_EQ(out.rfind(row.str("out_starts"), 0), 0u) << out;
        std::stringstream err;
        err << std::ifstream(dir_ / "err").rdbuf();
        EXPECT_NE(err.str().find(expand(row.str("err"))), std::string::npos) << err.str();
    }
    EXPECT_FALSE(std::filesystem::exists(dir_ / "absent"));
}

TEST_F(NksetTest, SettingsOptionWinsOverTheEnvironment) {
    const std::string other = dir_ / "other";
    ASSERT_TRUE(std::filesystem::create_directory(other));
    ASSERT_EQ(nk::test::run_command(NK_NKSET_BIN " --settings " + other + " set /k v"), 0);
    EXPECT_EQ(sm::getKeyValue("/k", "none"), "none");
    nk::test::ScopedEnv env("NK_SETTINGS_DIR", other);
    EXPECT_EQ(sm::getKeyValue("/k", "none"), "v");
}

TEST_F(NksetTest, WatchPrintsEachChangeUntilStopped) {
    for (const int sig : {SIGINT, SIGTERM}) {
        SCOPED_TRACE(sig);
        sm::deleteKey("/w");  // left by the previous round
        nk::test::DaemonProcess watch;
        ASSERT_TRUE(watch.start({"/bin/sh", "-c", "exec \"$0\" watch /w >&2", NK_NKSET_BIN}));
        ASSERT_TRUE(watch.wait_for_line("/w"));  // armed, the key has no value yet
        ASSERT_EQ(sm::setKey("/w", "one"), 0);
        ASSERT_TRUE(watch.wait_for_line("/w=one"));
        // Rewriting the same value prints nothing.
        for (const char* value : {"one", "two"})
            ASSERT_EQ(sm::setKey("/w", value), 0);
        ASSERT_TRUE(watch.wait_for_line("/w=two"));
        EXPECT_EQ(watch.stop(sig), 0);
        EXPECT_EQ(watch.log(), "/w\n/w=one\n/w=two\n");
    }
}

TEST_F(NksetTest, LockHeldByAnotherProcessIsRefusedThenGranted) {
    const std::string release = dir_ / "release";
    ASSERT_EQ(::mkfifo(release.c_str(), 0600), 0);
    nk::test::DaemonProcess holder;
    ASSERT_TRUE(holder.start({NK_NKSET_BIN, "lock", "/k", "/bin/sh", "-c",
                              "echo held >&2; exec timeout 10 cat \"$0\" 2>&-", release}));
    ASSERT_TRUE(holder.wait_for_line("held"));

    sm::set_lock_timeout_ms(150);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_LT(sm::lockKey("/k"), 0);
    EXPECT_EQ(nkerrno, EWOULDBLOCK);
    EXPECT_GE(std::chrono::steady_clock::now() - start, 150ms);
    sm::set_lock_timeout_ms(2000);

    // Opened and closed: the holder reads its end of file and exits. Killed early, it would
    // still give up after ten seconds.
    nk::io::unique_fd(::open(release.c_str(), O_WRONLY | O_CLOEXEC));
    EXPECT_EQ(holder.wait_exit(), 0);
    EXPECT_EQ(sm::lockKey("/k"), 0);
    EXPECT_EQ(sm::unlockKey("/k"), 0);
}

}  // namespace
