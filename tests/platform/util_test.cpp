#include "nk/util.h"

#include <unistd.h>

#include <filesystem>
#include <fstream>

#include <gtest/gtest.h>

#include "nk/constants.h"
#include "temp_dir.h"

namespace {

using nk::test::ScopedEnv;
using nk::test::TempDir;

TEST(Base64, Rfc4648Vectors) {
    const std::pair<const char*, const char*> vectors[] = {
        {"", ""},
        {"f", "Zg=="},
        {"fo", "Zm8="},
        {"foo", "Zm9v"},
        {"foob", "Zm9vYg=="},
        {"fooba", "Zm9vYmE="},
        {"foobar", "Zm9vYmFy"},
    };
    for (const auto& [plain, encoded] : vectors) {
        SCOPED_TRACE(encoded);
        EXPECT_EQ(nk::base64_encode(plain), encoded);
        EXPECT_EQ(nk::base64_decode(encoded), plain);
    }
}

TEST(Base64, RejectsMalformedInput) {
    for (const char* text : {
             "Zg",        // missing padding
             "Zg=",       // short padding
             "Zm9",       // bad length
             "Zm9vY",     // bad length
             "Z===",      // too much padding
             "====",      // padding only
             "Zg==Zg==",  // padding in the middle
             "Zm=v",      // padding inside a group
             "Zm9v\n",    // white space
             "Zm 9v",     // white space
             " Zm9v",     // white space
             "Zm9v!A==",  // bad character
             "Zm9-",      // URL-safe alphabet is not the standard one
             "Zm9_",      // URL-safe alphabet is not the standard one
         }) {
        SCOPED_TRACE(text);
        EXPECT_FALSE(nk::base64_decode(text).has_value());
    }
    EXPECT_FALSE(nk::base64_decode(std::string("Zm9\0", 4)).has_value());
    EXPECT_FALSE(nk::base64_decode("Zm9v\xff\xff\xff\xff").has_value());
}

TEST(ExtractHostname, Cleaning) {
    const std::string long_ascii(70, 'a');
    // 62 ASCII bytes then a 2-byte character that would end at byte 64.
    const std::string boundary = std::string(62, 'b') + "\xc3\xa9" + "x";
    struct Case {
        std::string raw;
        std::string expected;
    };
    for (const Case& c : {
             Case{"laptop", "laptop"},
             Case{"Johns-iPhone.lan", "Johns-iPhone"},  // host part, case kept
             Case{"a.b.c", "a"},
             Case{".hidden", ""},
             Case{"", ""},
             Case{"  spaced name  .home", "spaced name"},
             Case{"tab\there\r\n", "tabhere"},
             Case{std::string("nul\0byte", 8), "nulbyte"},
             Case{"del\x7f"
                  "ete",
                  "delete"},
             Case{"c1\xc2\x85mark", "c1mark"},    // U+0085 is a control character
             Case{"caf\xc3\xa9", "caf\xc3\xa9"},  // valid UTF-8 kept
             Case{"\xe6\x9d\xb1\xe4\xba\xac", "\xe6\x9d\xb1\xe4\xba\xac"},
             Case{"bad\xff"
                  "byte",
                  "badbyte"},
             Case{"lone\x80"
                  "cont",
                  "lonecont"},
             Case{"cut\xc3", "cut"},                // truncated sequence
             Case{"over\xc0\xaflong", "overlong"},  // overlong '/'
             Case{"surr\xed\xa0\x80"
                  "ogate",
                  "surrogate"},
             Case{"big\xf4\x90\x80\x80", "big"},  // above U+10FFFF
             Case{"\x01\x02 x \x03", "x"},
             Case{long_ascii, std::string(63, 'a')},
             Case{boundary, std::string(62, 'b')},
             Case{std::string(61, 'c') + "\xc3\xa9z", std::string(61, 'c') + "\xc3\xa9"},
             Case{std::string(62, 'd') + " x", std::string(62, 'd')},  // no trailing blank
             Case{"   " + std::string(63, 'e') + ".x", std::string(63, 'e')},
         }) {
        SCOPED_TRACE(c.raw);
        const std::string name = nk::extract_hostname(c.raw);
        EXPECT_EQ(name, c.expected);
        EXPECT_LE(name.size(), 63u);
    }
}

TEST(InterfaceUp, LoopbackAndMissing) {
    EXPECT_TRUE(nk::is_interface_up("lo"));
    EXPECT_FALSE(nk::is_interface_up("nk-no-such0"));
    EXPECT_FALSE(nk::is_interface_up(""));
    EXPECT_FALSE(nk::is_interface_up(std::string(40, 'x')));
    EXPECT_FALSE(nk::is_interface_up(std::string("lo\0x", 4)));
}

void write_value(const std::string& dir, const std::string& text) {
    std::filesystem::create_directories(dir);
    std::ofstream(dir + "/.value") << text;
}

TEST(LeasesMode, ReadFromSettings) {
    const TempDir settings;
    const ScopedEnv env(nk::kSettingsDirEnv, settings.path());
    EXPECT_EQ(nk::get_nkleases_mode(), 0);  // absent
    const std::string dir = settings.path() + std::string(nk::kLeasesModeKey);
    write_value(dir, "1");
    EXPECT_EQ(nk::get_nkleases_mode(), 1);
    write_value(dir, "external");
    EXPECT_EQ(nk::get_nkleases_mode(), 0);  // unparsable
}

TEST(CommonPath, EnvironmentThenExecutableDirectory) {
    {
        const ScopedEnv env(nk::kLibexecDirEnv, std::string("/opt/nk/libexec"));
        EXPECT_EQ(nk::common_path_kind1(), "/opt/nk/libexec");
    }
    const std::string self = std::filesystem::read_symlink("/proc/self/exe").parent_path();
    {
        const ScopedEnv env(nk::kLibexecDirEnv, std::string());
        EXPECT_EQ(nk::common_path_kind1(), self);
    }
    const ScopedEnv env(nk::kLibexecDirEnv, std::nullopt);
    EXPECT_EQ(nk::common_path_kind1(), self);
    EXPECT_TRUE(std::filesystem::exists(nk::common_path_kind1() + "/util_test"));
}

}  // namespace
