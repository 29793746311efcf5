#include "nk/log.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iomanip>
#include <regex>
#include <sstream>
#include <vector>

#include <gtest/gtest.h>

#include "nk/constants.h"
#include "nk/io.h"
#include "nk/json.h"
#include "stderr_capture.h"
#include "temp_dir.h"

namespace {

using nk::io::unique_fd;
using nk::test::ScopedEnv;
using nk::test::StderrCapture;
using nk::test::TempDir;
namespace lg = nk::log;

std::vector<std::string> lines_of(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

class Log : public ::testing::Test {
protected:
    void SetUp() override { lg::set_level(lg::INFO); }
    void TearDown() override { lg::set_level(nk::kLogLevelDefault); }

    // The store is read when channels are opened: keep it private to the test.
    TempDir settings_;
    ScopedEnv settings_env_{nk::kSettingsDirEnv, settings_.path()};
};

TEST_F(Log, LineForm) {
    StderrCapture capture;
    const std::time_t before = std::time(nullptr);
    const int line = __LINE__ + 1;
    NK_LOG(lg::INFO, "hello {} {:s}", 42, "world");
    const std::time_t after = std::time(nullptr);
    const std::string out = capture.text();

    const std::regex form(R"(^(\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2})\.\d{3} +(\d+) +INFO )"
                          R"(\[log_test\.cpp:(\d+)\]\[TestBody\(\)\]: hello 42 world\n$)");
    std::smatch m;
    ASSERT_TRUE(std::regex_match(out, m, form)) << out;
    EXPECT_EQ(std::stoi(m[2]), ::getpid());
    EXPECT_EQ(std::stoi(m[3]), line);

    std::tm tm{};
    std::istringstream(m[1].str()) >> std::get_time(&tm, "%Y-%m-%d %H:%M:%S");
    tm.tm_isdst = -1;
    const std::time_t stamped = std::mktime(&tm);
    EXPECT_GE(stamped, before);
    EXPECT_LE(stamped, after);
}

TEST_F(Log, BelowTheLevelNeitherPrintsNorFormats) {
    int evaluated = 0;
    const auto costly = [&evaluated] { return ++evaluated; };
    StderrCapture capture;
    NK_LOG(lg::DEBUG, "value {}", costly());
    NK_LOG(lg::TRACE, "value {}", costly());
    EXPECT_EQ(evaluated, 0);
    NK_LOG(lg::INFO, "value {}", costly());
    EXPECT_EQ(evaluated, 1);
    const auto lines = lines_of(capture.text());
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_NE(lines[0].find("]: value 1"), std::string::npos);
}

TEST_F(Log, LevelFromEnvironment) {
    struct Case {
        const char* env;
        int level;
    };
    for (const Case& c : {Case{"4", 4}, Case{"0", 0}, Case{"3", 3}, Case{"5", 2}, Case{"-1", 2},
                          Case{"debug", 2}, Case{"", 2}}) {
        SCOPED_TRACE(c.env);
        const ScopedEnv env(nk::kLogLevelEnv, std::string(c.env));
        lg::init("log_test");
        EXPECT_TRUE(lg::can_log(c.level));
        EXPECT_FALSE(lg::can_log(c.level + 1));
    }
}

TEST_F(Log, ChannelLevelFromSettings) {
    std::filesystem::create_directories(settings_.path() + "/log/levels/test-verbose");
    std::ofstream(settings_.path() + "/log/levels/test-verbose/.value") << "4";
    std::filesystem::create_directories(settings_.path() + "/log/levels/test-bad");
    std::ofstream(settings_.path() + "/log/levels/test-bad/.value") << "9";

    const auto verbose = lg::open_channel("test-verbose");
    const auto plain = lg::open_channel("test-plain");
    const auto bad = lg::open_channel("test-bad");
    ASSERT_TRUE(verbose && plain && bad);
    EXPECT_NE(verbose->id, plain->id);
    EXPECT_EQ(lg::open_channel("test-verbose")->id, verbose->id);
    EXPECT_FALSE(lg::open_channel(""));

    EXPECT_TRUE(lg::can_log(*verbose, lg::TRACE));
    EXPECT_FALSE(lg::can_log(lg::default_channel(), lg::DEBUG));
    EXPECT_TRUE(lg::can_log(*plain, lg::INFO));
    EXPECT_FALSE(lg::can_log(*plain, lg::DEBUG));
    EXPECT_FALSE(lg::can_log(*bad, lg::DEBUG));  // out of range falls back
    EXPECT_FALSE(lg::can_log(lg::Channel{-1}, lg::ERROR));
    EXPECT_FALSE(lg::can_log(lg::Channel{1000}, lg::ERROR));

    StderrCapture capture;
    NK_LOG_CH(*verbose, lg::TRACE, "from channel {}", "verbose");
    NK_LOG_CH(*plain, lg::TRACE, "never");
    const auto lines = lines_of(capture.text());
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_NE(lines[0].find(" TRACE [log_test.cpp:"), std::string::npos);
    EXPECT_NE(lines[0].find("]: from channel verbose"), std::string::npos);
}

TEST_F(Log, JsonIsCompact) {
    const nk::json_ptr json(
        json_pack("{s:i, s:[i,i], s:{s:s}}", "a", 1, "b", 2, 3, "c", "d", "e f"));
    ASSERT_TRUE(json);
    StderrCapture capture;
    lg::log_json(lg::INFO, "answer:", json.get());
    lg::log_json(lg::DEBUG, "hidden:", json.get());
    const auto lines = lines_of(capture.text());
    ASSERT_EQ(lines.size(), 1u);
    const std::string tail = R"( INFO answer: {"a":1,"b":[2,3],"c":{"d":"e f"}})";
    ASSERT_GE(lines[0].size(), tail.size());
    EXPECT_EQ(lines[0].substr(lines[0].size() - tail.size()), tail) << lines[0];
}

}  // namespace
