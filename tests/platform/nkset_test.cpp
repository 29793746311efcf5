// The nkset command line: exit statuses, output, watching and locking.
#include <signal.h>

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include <nk/setmgmt.h>

#include "daemon_process.h"
#include "temp_dir.h"

namespace {

namespace sm = nk::setMgmt;

class NksetTest : public ::testing::Test {
protected:
    // Exit status; stdout into `out`, stderr into `err`.
    int nkset(const std::string& args, std::string* out = nullptr, std::string* err = nullptr) {
        const std::string err_file = dir_ / "stderr";
        const int rc =
            nk::test::run_command(std::string(NK_NKSET_BIN) + " " + args + " 2>" + err_file, out);
        if (err) {
            std::stringstream text;
            text << std::ifstream(err_file).rdbuf();
            *err = text.str();
        }
        return rc;
    }

    nk::test::TempDir dir_;
    std::string root_ = dir_ / "store";
    nk::test::ScopedEnv env_{"NK_SETTINGS_DIR", root_};
};

TEST_F(NksetTest, ExitStatusesAndOutputOfEachCommand) {
    struct Case {
        const char* args;
        int status;
        const char* out;       // exact stdout
        const char* err_part;  // expected in stderr
    };
    const Case cases[] = {
        {"set /a/b 'x y'", 0, "", ""},
        {"set /a/c 1", 0, "", ""},
        {"get /a/b", 0, "x y\n", ""},
        {"ls /a", 0, "b\nc\n", ""},
        {"get /a/missing", 1, "", "no such key"},
        {"ls /missing", 1, "", "no such key"},
        {"get a/b", 2, "", "invalid key"},
        {"set /a/ 1", 2, "", "invalid key"},
        {"del /", 2, "", "Invalid argument"},
        {"del /a", 0, "", ""},
        {"del /a", 1, "", "no such key"},
        {"set /a", 64, "", "Usage"},
        {"frob /a", 64, "", "unknown command"},
        {"", 64, "", "no command"},
        {"--wait x lock /a true", 64, "", "bad option"},
        {"--help", 0, nullptr, ""},
        {"--wait 50 lock /held true", 3, "", "held by another process"},
        // Inside the command the key is taken: a second locker gives up.
        {"lock /k sh -c '\"$0\" --wait 0 lock /k true; echo $?; exit 7' " NK_NKSET_BIN, 7, "3\n",
         ""},
        {"lock /k /nonexistent/command", 127, "", "cannot run"},
    };
    ASSERT_EQ(sm::lockKey("/held"), 0);
    for (const Case& c : cases) {
        SCOPED_TRACE(c.args);
        std::string out;
        std::string err;
        EXPECT_EQ(nkset(c.args, &out, &err), c.status);
        if (c.out) {
            EXPECT_EQ(out, c.out);
        }
        EXPECT_NE(err.find(c.err_part), std::string::npos) << err;
    }
}

TEST_F(NksetTest, SettingsOptionWinsOverTheEnvironment) {
    const std::string other = dir_ / "other";
    ASSERT_EQ(nkset("--settings " + other + " set /k v"), 0);
    std::string value;
    EXPECT_LT(sm::getKey("/k", value), 0);
    nk::test::ScopedEnv env("NK_SETTINGS_DIR", other);
    EXPECT_EQ(sm::getKey("/k", value), 0);
}

TEST_F(NksetTest, WatchPrintsEachChangeUntilStopped) {
    for (const int sig : {SIGINT, SIGTERM}) {
        SCOPED_TRACE(sig);
        sm::deleteKey("/w");  // left by the previous round
        nk::test::DaemonProcess watch;
        ASSERT_TRUE(watch.start({"/bin/sh", "-c", "exec \"$0\" watch /w 1>&2", NK_NKSET_BIN}));
        ASSERT_TRUE(watch.wait_for_line("/w"));  // armed, the key has no value yet
        ASSERT_EQ(sm::setKey("/w", "one"), 0);
        ASSERT_TRUE(watch.wait_for_line("/w=one"));
        // Rewriting the same value prints nothing.
        for (const char* value : {"one", "two"}) {
            ASSERT_EQ(sm::setKey("/w", value), 0);
        }
        ASSERT_TRUE(watch.wait_for_line("/w=two"));
        EXPECT_EQ(watch.count_lines("/w=one"), 1);
        EXPECT_EQ(watch.stop(sig), 0);
    }
}

}  // namespace
