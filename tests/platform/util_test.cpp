// Text helpers, the cloud's JSON answers, and where settings and programs are found.
#include "nk/util.h"

#include <filesystem>
#include <fstream>

#include <gtest/gtest.h>

#include "nk/constants.h"
#include "nk/json.h"
#include "table.h"
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
    for (const std::string& name :
         {std::string("nk-no-such0"), std::string(), std::string(40, 'x'), std::string("lo\0x", 4)})
        EXPECT_FALSE(nk::is_interface_up(name)) << name;
}

TEST(Util, LeasesModeFromSettings) {
    const nk::test::TempDir settings;
    const ScopedEnv env(nk::kSettingsDirEnv, settings.path());
    EXPECT_EQ(nk::get_nkleases_mode(), 0);
    const std::string dir = settings.path() + std::string(nk::kLeasesModeKey);
    std::filesystem::create_directories(dir);
    for (const auto& [text, mode] : {std::pair{"1", 1}, std::pair{"external", 0}}) {
        std::ofstream(dir + "/.value") << text;
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

}  // namespace
