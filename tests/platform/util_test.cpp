// Text helpers, the cloud's JSON answers, where settings and programs are found, and the log.
#include "nk/util.h"

#include <unistd.h>

#include <ctime>
#include <filesystem>
#include <regex>

#include <fmt/chrono.h>
#include <gtest/gtest.h>

#include "nk/constants.h"
#include "nk/json.h"
#include "nk/log.h"
#include "stderr_capture.h"
#include "tables.h"
#include "temp_dir.h"

namespace {

using nk::test::ScopedEnv;

nk::test::Table cases(const char* name) {
    return {NK_TEST_DATA "/util.json", name};
}

TEST(Util, Base64) {
    for (const auto& row : cases("base64")) {
        EXPECT_EQ(nk::base64_encode(row.str("plain")), row.str("encoded"));
        EXPECT_EQ(nk::base64_decode(row.str("encoded")), row.str("plain"));
    }
    for (const auto& row : cases("base64_bad"))
        EXPECT_FALSE(nk::base64_decode(row.str())) << row.text();
}

TEST(Util, ExtractHostnameKeepsAtMost63BytesOfPrintableUtf8) {
    for (const auto& row : cases("hostname"))
        EXPECT_EQ(nk::extract_hostname(row.str("raw")), row.str("name")) << row.text();
}

TEST(Util, InterfaceUp) {
    EXPECT_TRUE(nk::is_interface_up("lo"));
    for (const auto& row : cases("interfaces_down"))
        EXPECT_FALSE(nk::is_interface_up(row.str())) << row.text();
}

TEST(Util, LeasesModeFromSettings) {
    const nk::test::TempDir settings;
    const ScopedEnv env(nk::kSettingsDirEnv, settings.path());
    EXPECT_EQ(nk::get_nkleases_mode(), 0);
    for (const auto& [text, mode] : {std::pair{"1", 1}, std::pair{"external", 0}}) {
        nk::test::write_setting(settings.path(), std::string(nk::kLeasesModeKey), text);
        EXPECT_EQ(nk::get_nkleases_mode(), mode) << text;
    }
}

TEST(Util, CommonPathIsTheEnvironmentElseTheExecutablesDirectory) {
    const std::string self = std::filesystem::read_symlink("/proc/self/exe").parent_path();
    using Value = std::optional<std::string>;
    for (const Value& value : {Value("/opt/nk/libexec"), Value(""), Value()}) {
        const ScopedEnv env(nk::kLibexecDirEnv, value);
        EXPECT_EQ(nk::common_path_kind1(), value && !value->empty() ? *value : self);
    }
}

TEST(Json, GetRecursive) {
    const nk::json_ptr json(
        json_loads(R"({"a": {"b": {"c": 7, "s": "x"}, "arr": [1]}, "n": null})", 0, nullptr));
    const auto get = [&json](std::initializer_list<const char*> keys) {
        return nk::json_dump_compact(nk::json_object_get_recursive(json.get(), keys));
    };
    EXPECT_EQ(get({"a", "b", "c"}), "7");
    EXPECT_EQ(get({"n"}), "null");
    EXPECT_EQ(get({}), nk::json_dump_compact(json.get()));
    // Missing, through a number, a string or an array, or a null key: nothing.
    using Keys = std::initializer_list<const char*>;
    for (const Keys keys :
         {Keys{"missing"}, Keys{"a", "missing", "c"}, Keys{"a", "b", "c", "d"},
          Keys{"a", "b", "s", "d"}, Keys{"a", "arr", "0"}, Keys{"n", "x"}, Keys{"a", nullptr}})
        EXPECT_EQ(get(keys), "");
    EXPECT_EQ(nk::json_object_get_recursive(nullptr, {"a"}), nullptr);
}

TEST(Json, CloudAnswerStatusAndDataCode) {
    for (const auto& row : cases("cloud_answer")) {
        EXPECT_EQ(nk::extract_response_status(row.get("answer")), row.num("status")) << row.text();
        EXPECT_EQ(nk::extract_error_data_code(row.get("answer")), row.num("data_code"))
            << row.text();
    }
    EXPECT_EQ(nk::extract_response_status(nullptr), -1);
    EXPECT_EQ(nk::extract_error_data_code(nullptr), -1);
}

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
                          R"(\[util_test\.cpp:(\d+)\]\[TestBody\(\)\]: hello 42 world 1\n$)");
    std::smatch m;
    ASSERT_TRUE(std::regex_match(out, m, form)) << out;
    EXPECT_EQ(std::stoi(m[2]), ::getpid());
    EXPECT_EQ(std::stoi(m[3]), line);
    const auto stamp = [](std::time_t t) { return fmt::format("{:%F %T}", fmt::localtime(t)); };
    EXPECT_TRUE(stamp(before) <= m[1].str() && m[1].str() <= stamp(after)) << m[1];
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
    for (const auto& [name, level] : {std::pair{"verbose", "4"}, std::pair{"bad", "9"}})
        nk::test::write_setting(settings_.path(), std::string("/log/levels/test-") + name, level);
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
    EXPECT_NE(out.find(" TRACE [util_test.cpp:"), std::string::npos) << out;
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
    EXPECT_TRUE(std::regex_search(out, std::regex(R"( INFO answer: \{"a":1,"b":\[2,3\],)"
                                                  R"("c":\{"d":"e f"\}\}\n$)")))
        << out;
}

}  // namespace
