#include "nk/log.h"

#include <unistd.h>

#include <ctime>
#include <filesystem>
#include <fstream>
#include <iomanip>
#include <regex>
#include <sstream>

#include <gtest/gtest.h>

#include "nk/constants.h"
#include "nk/json.h"
#include "stderr_capture.h"
#include "table.h"
#include "temp_dir.h"

namespace {

using nk::test::ScopedEnv;
using nk::test::StderrCapture;
namespace lg = nk::log;

class Log : public ::testing::Test {
protected:
    void SetUp() override { lg::set_level(lg::INFO); }
    void TearDown() override { lg::set_level(nk::kLogLevelDefault); }

    // The store is read when channels are opened: keep it private to the test.
    nk::test::TempDir settings_;
    ScopedEnv settings_env_{nk::kSettingsDirEnv, settings_.path()};
};

TEST_F(Log, LineFormAndLazyArguments) {
    int evaluated = 0;
    const auto costly = [&evaluated] { return ++evaluated; };
    StderrCapture capture;
    const std::time_t before = std::time(nullptr);
    NK_LOG(lg::DEBUG, "value {}", costly());
    const int line = __LINE__ + 1;
    NK_LOG(lg::INFO, "hello {} {:s} {}", 42, "world", costly());
    const std::time_t after = std::time(nullptr);
    const std::string out = capture.text();
    EXPECT_EQ(evaluated, 1);  // below the level nothing is formatted

    const std::regex form(R"(^(\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2})\.\d{3} +(\d+) +INFO )"
                          R"(\[log_test\.cpp:(\d+)\]\[TestBody\(\)\]: hello 42 world 1\n$)");
    std::smatch m;
    ASSERT_TRUE(std::regex_match(out, m, form)) << out;
    EXPECT_EQ(std::stoi(m[2]), ::getpid());
    EXPECT_EQ(std::stoi(m[3]), line);
    std::tm tm{};
    std::istringstream(m[1].str()) >> std::get_time(&tm, "%Y-%m-%d %H:%M:%S");
    tm.tm_isdst = -1;
    EXPECT_GE(std::mktime(&tm), before);
    EXPECT_LE(std::mktime(&tm), after);
}

TEST_F(Log, LevelFromEnvironment) {
    for (const auto& row : nk::test::Table(NK_TEST_DATA "/util.json", "log_level_env")) {
        const ScopedEnv env(nk::kLogLevelEnv, row.str("env"));
        lg::init("log_test");
        EXPECT_TRUE(lg::can_log(row.num("level"))) << row.text();
        EXPECT_FALSE(lg::can_log(row.num("level") + 1)) << row.text();
    }
}

TEST_F(Log, ChannelLevelFromSettings) {
    for (const auto& [name, level] : {std::pair{"verbose", "4"}, std::pair{"bad", "9"}}) {
        const std::string dir = settings_.path() + "/log/levels/test-" + name;
        std::filesystem::create_directories(dir);
        std::ofstream(dir + "/.value") << level;
    }
    const auto verbose = lg::open_channel("test-verbose");
    const auto plain = lg::open_channel("test-plain");
    const auto bad = lg::open_channel("test-bad");
    ASSERT_TRUE(verbose && plain && bad);
    EXPECT_NE(verbose->id, plain->id);
    EXPECT_EQ(lg::open_channel("test-verbose")->id, verbose->id);
    EXPECT_FALSE(lg::open_channel(""));

    EXPECT_FALSE(lg::can_log(lg::default_channel(), lg::DEBUG));
    EXPECT_TRUE(lg::can_log(*plain, lg::INFO));
    EXPECT_FALSE(lg::can_log(*plain, lg::DEBUG));
    EXPECT_FALSE(lg::can_log(*bad, lg::DEBUG));  // out of range falls back
    EXPECT_FALSE(lg::can_log(lg::Channel{-1}, lg::ERROR));
    EXPECT_FALSE(lg::can_log(lg::Channel{1000}, lg::ERROR));

    StderrCapture capture;
    NK_LOG_CH(*verbose, lg::TRACE, "from channel {}", "verbose");
    NK_LOG_CH(*plain, lg::TRACE, "never");
    const std::string out = capture.text();
    EXPECT_NE(out.find(" TRACE [log_test.cpp:"), std::string::npos) << out;
    EXPECT_NE(out.find("]: from channel verbose\n"), std::string::npos) << out;
    EXPECT_EQ(out.find("never"), std::string::npos) << out;
}

TEST_F(Log, JsonIsCompact) {
    const nk::json_ptr json(
        json_pack("{s:i, s:[i,i], s:{s:s}}", "a", 1, "b", 2, 3, "c", "d", "e f"));
    StderrCapture capture;
    lg::log_json(lg::INFO, "answer:", json.get());
    lg::log_json(lg::DEBUG, "hidden:", json.get());
    const std::string out = capture.text();
    const std::string tail = R"( INFO answer: {"a":1,"b":[2,3],"c":{"d":"e f"}})"
                             "\n";
    ASSERT_GE(out.size(), tail.size());
    EXPECT_EQ(out.substr(out.size() - tail.size()), tail) << out;
    EXPECT_EQ(out.find("hidden"), std::string::npos) << out;
}

}  // namespace
