// The settings store on a real directory tree, with real processes competing for its keys and
// watching them, and nkset, its command line.
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <thread>

#include <nk/featureutl.h>
#include <nk/io.h>
#include <nk/nkerrno.h>
#include <nk/setmgmt.h>

#include "daemon_process.h"
#include "tables.h"
#include "temp_dir.h"
#include "wait.h"

namespace {

namespace sm = nk::setMgmt;
namespace fs = std::filesystem;
using namespace std::chrono_literals;
using Names = std::vector<std::string>;

// Another process changes the store, and makes it when it is not there yet, as an installer would.
int nkset(const std::string& args) {
    return nk::test::run_command("mkdir -p \"$NK_SETTINGS_DIR\" && " + std::string(NK_NKSET_BIN) +
                                 " " + args);
}

class SetMgmtTest : public ::testing::Test {
protected:
    void TearDown() override {
        sm::set_lock_timeout_ms(2000);
        sm::uninit();
        nk::featureutl::uninit();
    }
    Names entries(const std::string& dir) const {
        Names out;
        for (const auto& e : fs::directory_iterator(dir))
            out.push_back(e.path().filename());
        std::sort(out.begin(), out.end());
        return out;
    }

    nk::test::TempDir dir_;
    std::string root_ = dir_ / "store";
    nk::test::ScopedEnv env_{"NK_SETTINGS_DIR", root_};
};

TEST_F(SetMgmtTest, BadKeysAreRejectedWithoutTouchingTheStore) {
    ASSERT_EQ(sm::init(), 0);
    for (const auto& row : nk::test::Table(NK_TEST_DATA "/setmgmt.json", "bad_keys")) {
        const std::string key = row.str();
        SCOPED_TRACE(row.text());
        std::string value;
        Names names;
        const auto einval = [](int rc) { return rc < 0 && nkerrno == EINVAL; };
        EXPECT_FALSE(sm::is_valid_key(key));
        EXPECT_TRUE(einval(sm::setKey(key, "v")) && einval(sm::getKey(key, value)) &&
                    einval(sm::deleteKey(key)) && einval(sm::enumSubkeys(key, names)) &&
                    einval(sm::lockKey(key)) && einval(sm::unlockKey(key)));
    }
    EXPECT_TRUE(fs::is_empty(root_));
    for (const auto& row : nk::test::Table(NK_TEST_DATA "/setmgmt.json", "good_keys"))
        EXPECT_TRUE(sm::is_valid_key(row.str())) << row.text();
}

TEST_F(SetMgmtTest, ValuesRoundTripAndAreWrittenOnlyWhenChanged) {
    const std::string file = root_ + "/a/b/c/.value";
    std::string value;
    for (const std::string& written :
         {std::string("x"), std::string(), std::string("two\nlines\n"), std::string(100000, 'z')}) {
        ASSERT_EQ(sm::setKey("/a/b/c", written), 0);
        ASSERT_EQ(sm::getKey("/a/b/c", value), 0);
        EXPECT_EQ(value, written);
    }
    EXPECT_EQ(entries(root_ + "/a/b/c"), Names{".value"});  // no temporary file left behind
    EXPECT_LT(sm::getKey("/a/b", value), 0);                // a parent without a value of its own
    EXPECT_EQ(nkerrno, ENOENT);

    const auto inode = [&file] {
        struct stat st {};
        EXPECT_EQ(::stat(file.c_str(), &st), 0);
        return st.st_ino;
    };
    const ino_t before = inode();
    ASSERT_EQ(sm::setKey("/a/b/c", value), 0);
    EXPECT_EQ(inode(), before);  // the same value is not written again
    ASSERT_EQ(sm::setKey("/a/b/c", "y"), 0);
    EXPECT_NE(inode(), before);  // a write renames a new file over the old one
}

TEST_F(SetMgmtTest, ManyKeysAtOnceReportEachFailureAndSetTheRest) {
    ASSERT_EQ(sm::setKey("/d/kept", "1"), 0);
    std::ofstream(root_ + "/file") << "not a directory";
    std::vector<int> errors;
    EXPECT_LT(
        sm::setKeys(
            {{"/d/new", "1"}, {"/d/kept", "1"}, {"/bad/", "1"}, {"/file/k", "1"}, {"/d/kept", "0"}},
            &errors),
        0);
    EXPECT_EQ(nkerrno, EINVAL);  // the first failure
    EXPECT_EQ(errors, (std::vector<int>{0, 0, EINVAL, ENOTDIR, 0}));
    EXPECT_EQ(sm::getKeyValue("/d/new", ""), "1");
    EXPECT_EQ(sm::getKeyValue("/d/kept", ""), "0");
    EXPECT_EQ(entries(root_ + "/d/kept"), Names{".value"});
    EXPECT_EQ(sm::setKeys({}), 0);
}

TEST_F(SetMgmtTest, LeftoversOfInterruptedWritesGoOnceOld) {
    ASSERT_EQ(sm::setKey("/a/b", "v"), 0);
    ASSERT_EQ(sm::lockKey("/a"), 0);
    const std::string old_temp = root_ + "/a/b/.value.AbC123";
    const std::string new_temp = root_ + "/a/.value.XyZ789";
    const std::string old_deleted = root_ + "/.deleted.Q1w2E3";
    std::ofstream(old_temp) << "torn";
    std::ofstream(new_temp) << "being written";
    fs::create_directories(old_deleted + "/x");
    const auto an_hour_ago = fs::file_time_type::clock::now() - std::chrono::hours(1);
    fs::last_write_time(old_temp, an_hour_ago);
    fs::last_write_time(old_deleted, an_hour_ago);

    EXPECT_EQ(sm::remove_leftovers(std::chrono::seconds(10)), 2);
    EXPECT_FALSE(fs::exists(old_temp));
    EXPECT_FALSE(fs::exists(old_deleted));
    EXPECT_TRUE(fs::exists(new_temp));
    EXPECT_EQ(sm::getKeyValue("/a/b", ""), "v");
    EXPECT_TRUE(fs::exists(root_ + "/.locks"));
}

TEST_F(SetMgmtTest, OneProcessAtATimeClaimsTheStore) {
    ASSERT_EQ(sm::init(), 0);
    int from_child[2];
    ASSERT_EQ(::pipe2(from_child, O_CLOEXEC), 0);
    const nk::io::unique_fd claimed_by_child(from_child[0]), child_end(from_child[1]);
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        long holder = 0;
        const char claimed = sm::claim("daemon", holder) == 0 ? '1' : '0';
        (void)!::write(from_child[1], &claimed, 1);
        ::pause();  // holds the claim until killed
        ::_exit(0);
    }
    char claimed = 0;
    ASSERT_EQ(::read(claimed_by_child.get(), &claimed, 1), 1);
    ASSERT_EQ(claimed, '1');
    long holder = 0;
    EXPECT_LT(sm::claim("daemon", holder), 0);
    EXPECT_EQ(nkerrno, EWOULDBLOCK);
    EXPECT_EQ(holder, child);
    EXPECT_EQ(sm::claim("other", holder), 0);  // claims of other programs are independent
    EXPECT_EQ(sm::claim("other", holder), 0);

    ::kill(child, SIGKILL);
    EXPECT_EQ(nk::test::reap(child), 128 + SIGKILL);
    EXPECT_EQ(sm::claim("daemon", holder), 0);  // the claim ends with its process
}

TEST_F(SetMgmtTest, SubkeysAndDeletionOfWholeTrees) {
    for (const char* key : {"/l", "/l/zeta", "/l/alpha", "/l/Mid", "/l/Mid/x", "/keep"})
        ASSERT_EQ(sm::setKey(key, "1"), 0);
    fs::create_directory(root_ + "/l/.hidden");
    std::ofstream(root_ + "/l/plain_file") << "x";
    ASSERT_EQ(sm::lockKey("/l"), 0);
    Names names;
    EXPECT_EQ(sm::enumSubkeys("/l", names), 3);
    EXPECT_EQ(names, (Names{"Mid", "alpha", "zeta"}));
    EXPECT_EQ(sm::enumSubkeys("/", names), 2);  // the lock folder is not a key
    EXPECT_EQ(names, (Names{"keep", "l"}));
    // A key under a plain file is as absent as one under nothing.
    std::string value;
    for (const char* key : {"/missing", "/l/plain_file/x"}) {
        EXPECT_TRUE(sm::enumSubkeys(key, names) < 0 && nkerrno == ENOENT) << key;
        EXPECT_TRUE(sm::getKey(key, value) < 0 && nkerrno == ENOENT) << key;
        EXPECT_TRUE(sm::deleteKey(key) < 0 && nkerrno == ENOENT) << key;
    }
    ASSERT_EQ(sm::deleteKey("/l"), 0);
    EXPECT_EQ(sm::getKeyValue("/l/Mid/x", "gone"), "gone");
    EXPECT_EQ(sm::enumSubkeys("/", names), 1);
    EXPECT_LT(sm::deleteKey("/"), 0);
    EXPECT_EQ(nkerrno, EINVAL);
}

TEST_F(SetMgmtTest, IntegersFallBackToTheDefaultWhenUnparsable) {
    for (const auto& row : nk::test::Table(NK_TEST_DATA "/setmgmt.json", "integers")) {
        ASSERT_EQ(sm::setKey("/n", row.str("text")), 0);
        EXPECT_EQ(sm::getKeyValue("/n", -1), row.num("value")) << row.text();
    }
    ASSERT_EQ(sm::setKey("/n", "300"), 0);
    EXPECT_EQ(sm::getKeyValue<uint8_t>("/n", 9), 9);
    EXPECT_EQ(sm::getKeyValue("/absent", 5), 5);
}

TEST_F(SetMgmtTest, ConcurrentWritersNeverTearAValue) {
    constexpr std::size_t kLen = 32 * 1024;
    std::vector<pid_t> writers;
    for (const char fill : {'a', 'b'}) {
        writers.push_back(::fork());
        ASSERT_GE(writers.back(), 0);
        for (int i = 0; writers.back() == 0; ++i) {
            if (i == 200 || sm::setKey("/t", std::string(kLen, fill)) != 0)
                ::_exit(i == 200 ? 0 : 1);
        }
    }
    int whole_reads = 0;
    while (!writers.empty()) {
        std::string value;
        if (sm::getKey("/t", value) == 0) {
            ASSERT_EQ(value.size(), kLen);
            ASSERT_EQ(value.find_first_not_of(value[0]), std::string::npos);
            ++whole_reads;
        }
        int status = 0;
        if (::waitpid(writers.back(), &status, WNOHANG) == writers.back()) {
            EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
            writers.pop_back();
        }
    }
    EXPECT_GT(whole_reads, 0);
}

TEST_F(SetMgmtTest, LocksAreCountedWithinTheProcess) {
    for (const auto& row : nk::test::Table(NK_TEST_DATA "/setmgmt.json", "lock_counts")) {
        const int rc =
            row.flag("lock") ? sm::lockKey(row.str("key")) : sm::unlockKey(row.str("key"));
        EXPECT_EQ(rc < 0 ? nkerrno : 0, row.num("error")) << row.text();
    }
    EXPECT_EQ(sm::getKeyValue("/k", "none"), "none");  // locking does not create the key

    std::vector<std::thread> threads;
    std::atomic<int> failures{0};
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&failures] {
            for (int i = 0; i < 200; ++i)
                failures += sm::lockKey("/shared") != 0 || sm::unlockKey("/shared") != 0;
        });
    }
    for (auto& t : threads)
        t.join();
    EXPECT_EQ(failures, 0);
    EXPECT_LT(sm::unlockKey("/shared"), 0);
}

TEST_F(SetMgmtTest, MonitoredKeyWakesWhenAnotherProcessSetsIt) {
    // What exists when watching starts: the key, its parent only, nothing (not even the root).
    for (const auto& row : nk::test::Table(NK_TEST_DATA "/setmgmt.json", "watched_from")) {
        SCOPED_TRACE(row.text());
        nk::test::ScopedEnv root("NK_SETTINGS_DIR", dir_ / row.str("name"));
        if (row.has("before")) {
            ASSERT_EQ(sm::setKey(row.str("before"), "old"), 0);
        }
        sm::MonitoredKey key("/w/k");
        ASSERT_GE(key.fd(), 0);
        EXPECT_FALSE(nk::test::wait_readable(key.fd(), 0ms));
        // The second write proves the watch followed the path once it appeared.
        for (const char* value : {"new", "newer"}) {
            ASSERT_EQ(nkset(std::string("set /w/k ") + value), 0);
            ASSERT_TRUE(nk::test::wait_readable(key.fd()));
            EXPECT_TRUE(key.consume());
            EXPECT_EQ(key.value(), value);
            EXPECT_FALSE(nk::test::wait_readable(key.fd(), 0ms));
        }
    }
}

TEST_F(SetMgmtTest, MonitoredKeyCountsChildrenAndDeletion) {
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
    EXPECT_EQ(sm::MonitoredKey("/p/").fd(), -1);
    EXPECT_EQ(nkerrno, EINVAL);
}

TEST_F(SetMgmtTest, FeatureChangeCallsThatFeaturesCallbackOnce) {
    namespace fu = nk::featureutl;
    ASSERT_EQ(sm::init(), 0);
    std::vector<long long> calls;
    const auto record = [&calls](int n) { calls.push_back(n); };
    EXPECT_EQ(fu::set_on_feature_change(3, record), -1);  // before init
    EXPECT_EQ(fu::read_fd(), -1);
    ASSERT_EQ(fu::init(), 0);  // before /features/ids exists
    for (const int feature : {3, 5})
        ASSERT_EQ(fu::set_on_feature_change(feature, record), 0);
    // A feature nobody asked about wakes the descriptor but calls nothing.
    for (const auto& row : nk::test::Table(NK_TEST_DATA "/setmgmt.json", "feature_steps")) {
        SCOPED_TRACE(row.text());
        ASSERT_EQ(nkset("set /features/ids/" + row.str("args")), 0);
        ASSERT_TRUE(nk::test::wait_readable(fu::get_fd()));
        const std::size_t before = calls.size();  // read_fd() adds to it
        EXPECT_EQ(fu::read_fd(), static_cast<int>(row.nums("calls").size() - before));
        EXPECT_EQ(calls, row.nums("calls"));
    }
    EXPECT_EQ(fu::get_feature(5), 2);
    EXPECT_EQ(fu::get_feature(4), 0);  // unset means on
    fu::uninit();
    EXPECT_EQ(fu::get_fd(), -1);
}

// The command line, on a store it never makes itself.
class NksetTest : public SetMgmtTest {
protected:
    NksetTest() { fs::create_directory(root_); }
};

TEST_F(NksetTest, ExitStatusesAndOutputOfEachCommand) {
    ASSERT_EQ(sm::lockKey("/held"), 0);
    const std::map<std::string, std::string> values{{"dir", dir_.path()}, {"nkset", NK_NKSET_BIN}};
    for (const auto& row : nk::test::Table(NK_TEST_DATA "/nkset.json", "commands")) {
        SCOPED_TRACE(row.text());
        std::string out;
        EXPECT_EQ(nk::test::run_command(std::string(NK_NKSET_BIN) + " " +
                                            nk::test::expand(row.str("args"), values) + " 2>" +
                                            (dir_ / "err"),
                                        &out),
                  row.num("status"));
        if (row.has("out")) {
            EXPECT_EQ(out, row.str("out"));
        }
        EXPECT_EQ(out.rfind(row.str("out_starts"), 0), 0u) << out;
        const std::string err = nk::test::read_data(dir_ / "err");
        EXPECT_NE(err.find(nk::test::expand(row.str("err"), values)), std::string::npos) << err;
    }
    EXPECT_FALSE(std::filesystem::exists(dir_ / "absent"));
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

    // Opened and closed: the holder reads its end of file and exits. Killed early, it would
    // still give up after ten seconds.
    nk::io::unique_fd(::open(release.c_str(), O_WRONLY | O_CLOEXEC));
    EXPECT_EQ(holder.wait_exit(), 0);
    EXPECT_EQ(sm::lockKey("/k"), 0);
    EXPECT_EQ(sm::unlockKey("/k"), 0);
}

}  // namespace
