// nkdevices on the bus: asking for a device id as another daemon does, and watching the
// daemon's notices, against a real broker and a responder that answers as the daemon does.
#include <signal.h>

#include <gtest/gtest.h>

#include <string>

#include <fmt/format.h>
#include <nk/nkex.h>

#include "daemon_process.h"
#include "temp_dir.h"
#include "test_broker.h"

namespace {

// Answers every request for a LAN client's id with "d-7", and the BOX's MAC with no id.
void answer(const Message* m, void* context) {
    auto* bus = static_cast<nkex_handle**>(context);
    const std::string request(m->data ? m->data : "", m->length);
    const bool box = request.find("02:00:00:00:00:fe") != std::string::npos;
    const std::string mac = box ? "02:00:00:00:00:fe" : "a4:5e:60:c2:1f:0b";
    const std::string text =
        fmt::format(R"({{"device_id": "{}", "mac": "{}"}})", box ? "" : "d-7", mac);
    nkex_send_response(*bus, 0, m->id, text.data(), text.size());
}

class NkdevicesBusTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(broker_.start()); }
    void TearDown() override { nkex_uninit(daemon_); }

    void serve() {
        ASSERT_NE(daemon_ = nkex_init("nkdevicediscovery", answer, &daemon_, 1), nullptr);
        const char* names[] = {"request_device_id"};
        ASSERT_EQ(nkex_subscribe(daemon_, names, 1), 0);
    }
    static int run(const std::string& args, std::string* out) {
        return nk::test::run_command(std::string(NK_NKDEVICES_BIN) + " " + args + " 2>&1", out);
    }

    nk::test::TempDir dir_;
    nk::test::TestBroker broker_{dir_.path()};
    nk::test::ScopedEnv broker_env_{"NKEX_BROKER", broker_.address()};
    nk::test::ScopedEnv timeout_env_{"NKEX_TIMEOUT_MS", "300"};
    nkex_handle* daemon_ = nullptr;
};

TEST_F(NkdevicesBusTest, IdAsksTheDaemonAndPrintsItsAnswer) {
    std::string out;
    EXPECT_EQ(run("id a4:5e:60:c2:1f:0b 192.168.1.20", &out), 1) << "nobody answers";
    EXPECT_EQ(out, "nkdevices: no answer to request_device_id (is the daemon running?)\n");

    serve();
    const struct {
        std::string args;
        int status;
        std::string output;
    } cases[] = {
        {"id A4-5E-60-C2-1F-0B 192.168.1.20", 0,
         "mac        a4:5e:60:c2:1f:0b\nip         192.168.1.20\ndevice_id  d-7\n"
         "kind       permanent\n"},
        {"--json id 02:00:00:00:00:fe 192.168.1.1", 0,
         R"({"mac":"02:00:00:00:00:fe","ip":"192.168.1.1","device_id":"","kind":"none"})"
         "\n"},
        {"id not-a-mac 192.168.1.20", 64, "invalid MAC not-a-mac"},
        {"id a4:5e:60:c2:1f:0b 192.168.1", 64, "invalid IP address 192.168.1"},
        {"id a4:5e:60:c2:1f:0b", 64, "wrong arguments for 'id'"},
        {"watch now", 64, "wrong arguments for 'watch'"},
    };
    for (const auto& c : cases) {
        out.clear();
        EXPECT_EQ(run(c.args, &out), c.status) << c.args;
        if (c.status == 0)
            EXPECT_EQ(out, c.output) << c.args;
        else
            EXPECT_NE(out.find(c.output), std::string::npos) << c.args << ": " << out;
    }
}

TEST_F(NkdevicesBusTest, WatchPrintsNoticesUntilStopped) {
    for (const bool json : {false, true}) {
        nk::test::DaemonProcess watch;  // its stdout joins the stderr it collects
        ASSERT_TRUE(watch.start(
            {"/bin/sh", "-c",
             fmt::format("exec {} {} watch 1>&2", NK_NKDEVICES_BIN, json ? "--json" : "")}));
        ASSERT_TRUE(watch.wait_for_line("watching permanent_device_id"));
        nkex_handle* daemon = nkex_init("nkdevicediscovery", nullptr, nullptr, 1);
        ASSERT_NE(daemon, nullptr);
        const std::string permanent = R"({"temp_device_id": "t-1", "cloud_device_id": "d-1"})";
        nkex_send_message(daemon, "permanent_device_id", permanent.data(), permanent.size());
        nkex_send_message(daemon, "clear_device_id_cache", "", 0);
        nkex_uninit(daemon);
        if (json) {
            EXPECT_TRUE(watch.wait_for_line(
                R"({"event":"permanent_device_id","temp_device_id":"t-1","cloud_device_id":"d-1"})"));
            EXPECT_TRUE(watch.wait_for_line(R"({"event":"clear_device_id_cache"})"));
        } else {
            EXPECT_TRUE(watch.wait_for_line("permanent_device_id  t-1 -> d-1"));
            EXPECT_TRUE(watch.wait_for_line("clear_device_id_cache"));
        }
        EXPECT_EQ(watch.stop(json ? SIGINT : SIGTERM), 0);
    }
}

}  // namespace
