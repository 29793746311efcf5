// The nkset command line: exit statuses, output, watching, and holding a lock for a test.
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include <nk/nkerrno.h>
#include <nk/setmgmt.h>

#include "temp_dir.h"
#include "wait.h"

extern char** environ;

namespace {

namespace sm = nk::setMgmt;
using namespace std::chrono_literals;

std::string read_file(const std::string& name) {
    std::stringstream text;
    text << std::ifstream(name).rdbuf();
    return text.str();
}

// nkset running in the background with its stdout in a file; killed and reaped if the test
// ends early.
class Background {
public:
    Background(std::vector<std::string> args, const std::string& out) {
        std::vector<char*> argv{const_cast<char*>(NK_NKSET_BIN)};
        for (std::string& arg : args)
            argv.push_back(arg.data());
        argv.push_back(nullptr);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                         0644);
        if (::posix_spawn(&pid_, argv[0], &actions, nullptr, argv.data(), environ) != 0)
            pid_ = 0;
        posix_spawn_file_actions_destroy(&actions);
    }
    ~Background() {
        if (pid_ > 0)
            stop(SIGKILL);
    }
    Background(const Background&) = delete;
    Background& operator=(const Background&) = delete;

    bool running() const { return pid_ > 0; }
    int stop(int sig) {
        ::kill(pid_, sig);
        return wait();
    }
    int wait() {
        int status = 0;
        ::waitpid(std::exchange(pid_, 0), &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }

private:
    pid_t pid_ = 0;
};

class NksetTest : public ::testing::Test {
protected:
    NksetTest() { std::filesystem::create_directory(root_); }  // nkset never makes the store

    // Exit status; stdout into `out`, stderr into `err`.
    int nkset(const std::string& args, std::string* out = nullptr, std::string* err = nullptr) {
        const std::string err_file = dir_ / "stderr";
        const int rc =
            nk::test::run_command(std::string(NK_NKSET_BIN) + " " + args + " 2>" + err_file, out);
        if (err)
            *err = read_file(err_file);
        return rc;
    }

    nk::test::TempDir dir_;
    std::string root_ = dir_ / "store";
    nk::test::ScopedEnv env_{"NK_SETTINGS_DIR", root_};
};

TEST_F(NksetTest, ExitStatusesAndOutputOfEachCommand) {
    const std::string absent = dir_ / "absent";
    struct Case {
        std::string args;
        int status;
        const char* out;       // exact stdout
        std::string err_part;  // expected in stderr
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
        {"--wait x lock /a true", 64, "", "not 'x'"},
        {"--bogus get /a", 64, "", "'--bogus'"},
        {"--help", 0, nullptr, ""},
        {"--settings " + absent + " set /a 1", 3, "", "no settings store at " + absent},
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
    EXPECT_FALSE(std::filesystem::exists(absent));
    std::string version;
    EXPECT_EQ(nkset("--version", &version), 0);
    EXPECT_EQ(version.rfind("nkset ", 0), 0U) << version;
}

TEST_F(NksetTest, SettingsOptionWinsOverTheEnvironment) {
    const std::string other = dir_ / "other";
    ASSERT_TRUE(std::filesystem::create_directory(other));
    ASSERT_EQ(nkset("--settings " + other + " set /k v"), 0);
    std::string value;
    EXPECT_LT(sm::getKey("/k", value), 0);
    nk::test::ScopedEnv env("NK_SETTINGS_DIR", other);
    EXPECT_EQ(sm::getKey("/k", value), 0);
}

TEST_F(NksetTest, WatchPrintsEachChangeUntilStopped) {
    const std::string out = dir_ / "watch.out";
    const auto printed = [&out](const std::string& text) {
        return nk::test::wait_until([&] { return read_file(out) == text; });
    };
    for (const int sig : {SIGINT, SIGTERM}) {
        SCOPED_TRACE(sig);
        sm::deleteKey("/w");  // left by the previous round
        Background watch({"watch", "/w"}, out);
        ASSERT_TRUE(watch.running());
        ASSERT_TRUE(printed("/w\n"));  // armed, the key has no value yet
        ASSERT_EQ(sm::setKey("/w", "one"), 0);
        ASSERT_TRUE(printed("/w\n/w=one\n"));
        // Rewriting the same value prints nothing.
        for (const char* value : {"one", "two"})
            ASSERT_EQ(sm::setKey("/w", value), 0);
        EXPECT_TRUE(printed("/w\n/w=one\n/w=two\n")) << read_file(out);
        EXPECT_EQ(watch.stop(sig), 0);
    }
}

TEST_F(NksetTest, LockHeldByAnotherProcessIsRefusedThenGranted) {
    const std::string held = dir_ / "held";
    const std::string release = dir_ / "release";
    // The holder gives up by itself after about ten seconds, should the test stop early.
    Background holder({"lock", "/k", "/bin/sh", "-c",
                       "touch \"$0\"; i=0; while [ ! -e \"$1\" ] && [ $i -lt 1000 ]; do "
                       "sleep 0.01; i=$((i+1)); done",
                       held, release},
                      "/dev/null");
    ASSERT_TRUE(nk::test::wait_until([&] { return std::filesystem::exists(held); }));

    sm::set_lock_timeout_ms(150);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_LT(sm::lockKey("/k"), 0);
    EXPECT_EQ(nkerrno, EWOULDBLOCK);
    EXPECT_GE(std::chrono::steady_clock::now() - start, 150ms);
    sm::set_lock_timeout_ms(2000);

    std::ofstream{release};
    EXPECT_EQ(holder.wait(), 0);
    EXPECT_EQ(sm::lockKey("/k"), 0);
    EXPECT_EQ(sm::unlockKey("/k"), 0);
}

}  // namespace
