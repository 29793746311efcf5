// nkdevices and nkcloud-emu as a user meets them: their command lines (data/command_lines.tsv),
// the device table as nkdevices lists it, and nkdevices on the bus against a real broker and a
// responder that answers as the daemon does (data/nkdevices_bus.tsv).
#include <signal.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include <fmt/format.h>
#include <nk/devmgmt.h>
#include <nk/nkex.h>

#include "daemon_process.h"
#include "tables.h"
#include "temp_dir.h"
#include "test_broker.h"

namespace {

using nk::sockutl::address;
using nk::sockutl::macaddr;

class CommandLineTest : public ::testing::Test {
protected:
    ~CommandLineTest() override {
        nk::devMgmt::close_table();
        nkex_uninit(daemon_);
    }

    nk::test::TempDir dir_;
    nk::test::ScopedEnv table_env_{"NK_DEVMGMT_DIR", dir_ / "devmgmt"};
    nk::test::ScopedEnv db_env_{"NK_CLOUD_DB", dir_ / "cloud.db"};
    nk::test::TestBroker broker_{dir_.path()};
    nk::test::ScopedEnv broker_env_{"NKEX_BROKER", broker_.address()};
    nk::test::ScopedEnv timeout_env_{"NKEX_TIMEOUT_MS", "300"};
    nkex_handle* daemon_ = nullptr;
    const std::map<std::string, std::string> programs_{
        {"nkdevices", NK_NKDEVICES_BIN}, {"emu", NK_CLOUD_EMU_BIN}, {"dir", dir_.path()}};
};

TEST_F(CommandLineTest, VersionUsageErrorsAndMissingStores) {
    ASSERT_TRUE(std::filesystem::create_directory(dir_ / "no-data"));
    nk::test::check_commands(NK_TOOLS_DATA "/command_lines.tsv", programs_);
    // Nothing is made where no store was.
    EXPECT_FALSE(std::filesystem::exists(dir_ / "devmgmt"));
    EXPECT_TRUE(std::filesystem::is_empty(dir_ / "no-data"));
}

TEST_F(CommandLineTest, ListIsATableUnlessJsonIsAsked) {
    nk::devMgmt::Device tv;
    tv.device_id = "dev-a";
    tv.display_name = "Kitchen TV";
    tv.box_detected_name = "samsung-tv";
    tv.macips[macaddr("a4:5e:60:c2:1f:0b")] = {address("192.168.1.20"), address("fe80::1")};
    tv.macips[macaddr("a4:5e:60:c2:1f:0c")] = {};
    nk::devMgmt::Device guest;
    guest.device_id = "dev-b";
    guest.onguest = 1;
    guest.macips[macaddr("02:11:22:33:44:55")] = {};
    ASSERT_TRUE(tv.write_to_shmem() && guest.write_to_shmem());

    std::string table;
    ASSERT_EQ(nk::test::run_command(NK_NKDEVICES_BIN " list", &table), 0);
    EXPECT_EQ(table, nk::test::read_data(NK_TOOLS_DATA "/list.txt"));
    std::string json;
    ASSERT_EQ(nk::test::run_command(NK_NKDEVICES_BIN " list --json", &json), 0);
    EXPECT_EQ(json.rfind("{\"device_id\":\"dev-a\"", 0), 0U) << json;
    EXPECT_NE(json.find("\n{\"device_id\":\"dev-b\""), std::string::npos) << json;
}

// Answers a request for a LAN client's id with "d-7", and for the BOX's MAC with no id.
void answer(const Message* m, void* context) {
    const bool box = std::string(m->data ? m->data : "", m->length).find("02:00:00:00:00:fe") !=
                     std::string::npos;
    const std::string text = fmt::format(R"({{"device_id": "{}", "mac": "{}"}})", box ? "" : "d-7",
                                         box ? "02:00:00:00:00:fe" : "a4:5e:60:c2:1f:0b");
    nkex_send_response(*static_cast<nkex_handle**>(context), 0, m->id, text.data(), text.size());
}

TEST_F(CommandLineTest, IdAsksTheDaemonAndPrintsItsAnswer) {
    ASSERT_TRUE(broker_.start());
    std::string out;
    EXPECT_EQ(
        nk::test::run_command(NK_NKDEVICES_BIN " id a4:5e:60:c2:1f:0b 192.168.1.20 2>&1", &out), 1);
    EXPECT_NE(out.find("no answer to request_device_id"), std::string::npos) << out;
    ASSERT_NE(daemon_ = nkex_init("nkdevicediscovery", answer, &daemon_, 1), nullptr);
    const char* names[] = {"request_device_id"};
    ASSERT_EQ(nkex_subscribe(daemon_, names, 1), 0);
    nk::test::check_commands(NK_TOOLS_DATA "/nkdevices_bus.tsv", programs_);
}

TEST_F(CommandLineTest, WatchPrintsNoticesUntilStopped) {
    ASSERT_TRUE(broker_.start());
    const struct {
        const char* option;
        int signal;
        const char* permanent;
        const char* clear;
    } kModes[] = {
        {"", SIGTERM, "permanent_device_id  t-1 -> d-1", "clear_device_id_cache"},
        {"--json", SIGINT,
         R"({"event":"permanent_device_id","temp_device_id":"t-1","cloud_device_id":"d-1"})",
         R"({"event":"clear_device_id_cache"})"},
    };
    for (const auto& mode : kModes) {
        nk::test::DaemonProcess watch;  // its stdout joins the stderr it collects
        ASSERT_TRUE(
            watch.start({"/bin/sh", "-c",
                         fmt::format("exec {} {} watch 1>&2", NK_NKDEVICES_BIN, mode.option)}));
        ASSERT_TRUE(watch.wait_for_line("watching permanent_device_id"));
        nkex_handle* daemon = nkex_init("nkdevicediscovery", nullptr, nullptr, 1);
        ASSERT_NE(daemon, nullptr);
        const std::string permanent = R"({"temp_device_id": "t-1", "cloud_device_id": "d-1"})";
        nkex_send_message(daemon, "permanent_device_id", permanent.data(), permanent.size());
        nkex_send_message(daemon, "clear_device_id_cache", "", 0);
        nkex_uninit(daemon);
        EXPECT_TRUE(watch.wait_for_line(mode.permanent));
        EXPECT_TRUE(watch.wait_for_line(mode.clear));
        EXPECT_EQ(watch.stop(mode.signal), 0);
    }
}

}  // namespace
