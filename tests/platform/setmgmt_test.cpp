// The settings store on a real directory tree, with real processes competing for its keys.
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <thread>

#include <nk/nkerrno.h>
#include <nk/setmgmt.h>

#include "temp_dir.h"

namespace {

namespace sm = nk::setMgmt;
namespace fs = std::filesystem;
using Names = std::vector<std::string>;

class SetMgmtTest : public ::testing::Test {
protected:
    void TearDown() override {
        sm::set_lock_timeout_ms(2000);
        sm::uninit();
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
    const std::string bad[] = {
        "", "a", "//a", "/a/", "/a//b", "/.a", "/a/.value", "/a/..", std::string("/a\0b", 4)};
    for (const std::string& key : bad) {
        SCOPED_TRACE(key);
        std::string value;
        Names names;
        const auto einval = [](int rc) { return rc < 0 && nkerrno == EINVAL; };
        EXPECT_FALSE(sm::is_valid_key(key));
        EXPECT_TRUE(einval(sm::setKey(key, "v")) && einval(sm::getKey(key, value)) &&
                    einval(sm::deleteKey(key)) && einval(sm::enumSubkeys(key, names)) &&
                    einval(sm::lockKey(key)) && einval(sm::unlockKey(key)));
    }
    EXPECT_TRUE(fs::is_empty(root_));
    for (const char* key : {"/", "/a", "/a b/c-d_1"})
        EXPECT_TRUE(sm::is_valid_key(key)) << key;
}

TEST_F(SetMgmtTest, ValuesRoundTripAndParentsAreCreated) {
    std::string value;
    const std::string values[] = {"x", "", "two\nlines\n", std::string(100000, 'z')};
    for (const std::string& written : values) {
        ASSERT_EQ(sm::setKey("/a/b/c", written), 0);
        ASSERT_EQ(sm::getKey("/a/b/c", value), 0);
        EXPECT_EQ(value, written);
    }
    EXPECT_EQ(entries(root_ + "/a/b/c"), Names{".value"});  // no temporary file left behind
    EXPECT_LT(sm::getKey("/a/b", value), 0);                // a parent without a value of its own
    EXPECT_EQ(nkerrno, ENOENT);
}

TEST_F(SetMgmtTest, SubkeysAreSortedAndHideTheStoresOwnNames) {
    for (const char* key : {"/l", "/l/zeta", "/l/alpha", "/l/Mid"})
        ASSERT_EQ(sm::setKey(key, "1"), 0);
    fs::create_directory(root_ + "/l/.hidden");
    std::ofstream(root_ + "/l/plain_file") << "x";
    ASSERT_EQ(sm::lockKey("/l"), 0);
    Names names;
    EXPECT_EQ(sm::enumSubkeys("/l", names), 3);
    EXPECT_EQ(names, (Names{"Mid", "alpha", "zeta"}));
    EXPECT_EQ(sm::enumSubkeys("/", names), 1);  // the lock folder is not a key
    EXPECT_EQ(names, Names{"l"});
    EXPECT_LT(sm::enumSubkeys("/missing", names), 0);
    EXPECT_EQ(nkerrno, ENOENT);
}

TEST_F(SetMgmtTest, DeleteRemovesTheWholeTree) {
    for (const char* key : {"/d/x", "/d/x/y", "/d/z", "/keep"})
        ASSERT_EQ(sm::setKey(key, "1"), 0);
    ASSERT_EQ(sm::deleteKey("/d"), 0);
    std::string value;
    EXPECT_LT(sm::getKey("/d/x/y", value), 0);
    EXPECT_EQ(entries(root_), Names{"keep"});
    EXPECT_LT(sm::deleteKey("/d"), 0);
    EXPECT_EQ(nkerrno, ENOENT);
    EXPECT_LT(sm::deleteKey("/"), 0);
    EXPECT_EQ(nkerrno, EINVAL);
}

TEST_F(SetMgmtTest, IntegersFallBackToTheDefaultWhenUnparsable) {
    const std::pair<const char*, int> cases[] = {{"42", 42},    {"-3", -3},  {" 7\n", 7},
                                                 {"12abc", -1}, {"", -1},    {" \n", -1},
                                                 {"0x10", -1},  {"1 2", -1}, {"99999999999", -1}};
    for (const auto& [text, expected] : cases) {
        ASSERT_EQ(sm::setKey("/n", text), 0);
        EXPECT_EQ(sm::getKeyValue("/n", -1), expected) << '"' << text << '"';
    }
    ASSERT_EQ(sm::setKey("/n", "300"), 0);
    EXPECT_EQ(sm::getKeyValue<uint8_t>("/n", 9), 9);
    EXPECT_EQ(sm::getKeyValue("/absent", 5), 5);
    EXPECT_EQ(sm::getKeyValue("/absent", "def"), "def");
}

TEST_F(SetMgmtTest, ConcurrentWritersNeverTearAValue) {
    constexpr std::size_t kLen = 32 * 1024;
    std::vector<pid_t> writers;
    for (const char fill : {'a', 'b'}) {
        const pid_t pid = ::fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            const std::string value(kLen, fill);
            for (int i = 0; i < 200; ++i) {
                if (sm::setKey("/t", value) != 0)
                    ::_exit(1);
            }
            ::_exit(0);
        }
        writers.push_back(pid);
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
    ASSERT_EQ(sm::lockKey("/k"), 0);
    ASSERT_EQ(sm::lockKey("/k"), 0);
    EXPECT_EQ(sm::unlockKey("/k"), 0);
    EXPECT_EQ(sm::unlockKey("/k"), 0);
    EXPECT_LT(sm::unlockKey("/k"), 0);
    EXPECT_EQ(nkerrno, EPERM);
    EXPECT_LT(sm::unlockKey("/never"), 0);
    std::string value;
    EXPECT_LT(sm::getKey("/k", value), 0);  // locking does not create the key

    std::vector<std::thread> threads;
    std::atomic<int> failures{0};
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&failures] {
            for (int i = 0; i < 200; ++i) {
                if (sm::lockKey("/shared") != 0 || sm::unlockKey("/shared") != 0)
                    ++failures;
            }
        });
    }
    for (auto& t : threads)
        t.join();
    EXPECT_EQ(failures, 0);
    EXPECT_LT(sm::unlockKey("/shared"), 0);
}

}  // namespace
