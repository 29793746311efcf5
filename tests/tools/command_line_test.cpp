// What a user meets first in nkdevices and nkcloud-emu: --version, usage errors, a missing
// store; and the device table as nkdevices shows it.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include <nk/devmgmt.h>

#include "temp_dir.h"

namespace {

using nk::devMgmt::Device;
using nk::sockutl::address;
using nk::sockutl::macaddr;

class CommandLineTest : public ::testing::Test {
protected:
    ~CommandLineTest() override { nk::devMgmt::close_table(); }

    // Exit status; stdout and stderr together in `out`.
    static int run(const std::string& command, std::string* out) {
        return nk::test::run_command(command + " 2>&1", out);
    }

    nk::test::TempDir dir_;
    std::string table_ = dir_ / "devmgmt";
    nk::test::ScopedEnv table_env_{"NK_DEVMGMT_DIR", table_};
    nk::test::ScopedEnv db_env_{"NK_CLOUD_DB", dir_ / "cloud.db"};
};

TEST_F(CommandLineTest, VersionUsageErrorsAndMissingStores) {
    constexpr int kUsage = 64;
    const std::string devices = NK_NKDEVICES_BIN;
    const std::string emu = NK_CLOUD_EMU_BIN;
    const std::string no_data = dir_ / "no-data";
    ASSERT_TRUE(std::filesystem::create_directory(no_data));
    const struct {
        std::string command;
        int status;
        std::string output;
    } cases[] = {
        {devices + " --version", 0, "nkdevices "},
        {devices + " --bogus list", kUsage, "'--bogus'"},
        {devices + " list extra", kUsage, "wrong arguments for 'list'"},
        {devices + " list", 1, "no device table at " + table_},
        {devices + " --devmgmt " + no_data + " del x", 1, "no device table at " + no_data},
        {emu + " --version", 0, "nkcloud-emu "},
        {emu + " --bogus list", kUsage, "unknown option '--bogus'"},
        {emu + " --broker tcp:host list", kUsage, "not 'tcp:host'"},
        {emu + " add not-a-mac", kUsage, "invalid MAC not-a-mac"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.command);
        std::string out;
        EXPECT_EQ(run(c.command, &out), c.status);
        EXPECT_NE(out.find(c.output), std::string::npos) << out;
        // A usage error gives the short usage, not the whole help.
        if (c.status == kUsage) {
            EXPECT_NE(out.find("--help' for more information"), std::string::npos) << out;
            EXPECT_EQ(out.find("Commands:"), std::string::npos) << out;
        }
    }
    EXPECT_FALSE(std::filesystem::exists(table_));
    EXPECT_TRUE(std::filesystem::is_empty(no_data));
}

TEST_F(CommandLineTest, ListIsATableUnlessJsonIsAsked) {
    Device tv;
    tv.device_id = "dev-a";
    tv.display_name = "Kitchen TV";
    tv.box_detected_name = "samsung-tv";
    tv.macips[macaddr("a4:5e:60:c2:1f:0b")] = {address("192.168.1.20"), address("fe80::1")};
    tv.macips[macaddr("a4:5e:60:c2:1f:0c")] = {};
    Device guest;
    guest.device_id = "dev-b";
    guest.onguest = 1;
    guest.macips[macaddr("02:11:22:33:44:55")] = {};
    ASSERT_TRUE(tv.write_to_shmem());
    ASSERT_TRUE(guest.write_to_shmem());

    std::string table;
    ASSERT_EQ(run(NK_NKDEVICES_BIN " list", &table), 0);
    EXPECT_EQ(table,
              "ID     NAME        MACS                                 ADDRESSES             "
              "ONLINE  GUEST\n"
              "dev-a  Kitchen TV  a4:5e:60:c2:1f:0b,a4:5e:60:c2:1f:0c  192.168.1.20,fe80::1  "
              "yes     no\n"
              "dev-b  -           02:11:22:33:44:55                    -                     "
              "no      yes\n");
    std::string json;
    ASSERT_EQ(run(NK_NKDEVICES_BIN " list --json", &json), 0);
    EXPECT_EQ(json.rfind("{\"device_id\":\"dev-a\"", 0), 0U) << json;
    EXPECT_NE(json.find("\n{\"device_id\":\"dev-b\""), std::string::npos) << json;
}

}  // namespace
