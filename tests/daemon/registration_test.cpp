// Registering devices, reporting host names, and the onbox reports with the gate that switches
// them off.
#include "cloud_request.h"
#include "daemon_fixture.h"
#include "device.h"
#include "device_identity.h"
#include "device_storage.h"
#include "scripted_cloud.h"
#include "stderr_capture.h"
#include "wait.h"

namespace {

const macaddr kMac("a4:5e:60:c2:1f:0b");

nk::onbox::Guardian& gate() {
    return nk::onbox::Guardian::instance();
}

class RegistrationTest : public nk::test::CloudTest {
protected:
    void SetUp() override {
        CloudTest::SetUp();
        g_feature_onbox_status = true;
        ASSERT_TRUE(gate().init());
    }
};
using OnboxTest = RegistrationTest;
using nk::test::Row;

TEST_F(RegistrationTest, ConnectRegistersReportsAndBlocksTheMacForTheInterval) {
    g_sync_poll_interval = 60;
    g_device_info_sync_timer = nk::time::Timer::make(nk::time::TIMER_OWNED);
    g_temporary_device_ids[mac_key(kMac)] = "00000000-0000-0000-0000-000000000001";

    Device device("", kMac, {address("192.168.1.20")}, "laptop");
    device.connect_device(1);

    EXPECT_EQ(device.local.device_id, "d-1");
    EXPECT_EQ(device.cloud.onguest, 1);
    EXPECT_EQ(device.info_sync_pending, 1);
    EXPECT_TRUE(g_device_info_sync_timer->is_running());
    EXPECT_FALSE(device.local.onbox_info.to_send);  // reported at once
    const auto requests = cloud_.sent();
    ASSERT_EQ(requests.size(), 3u);
    EXPECT_EQ(requests[0].second,
              R"({"box_detected_name": "laptop", "mac": ")" + kMac.to_string(false) + R"("})");
    EXPECT_EQ(requests[2].first, "set_device_onbox");
    EXPECT_EQ(nk::test::marker("d-1"), "0");
    EXPECT_TRUE(load_device_from_storage("d-1").has_value());
    EXPECT_TRUE(g_temporary_device_ids.empty()) << "the permanent id was not announced";

    // The same MAC again (a removed device coming back, or a new name) waits out the interval.
    Device again("", kMac, {}, "laptop");
    g_now = 1179;
    EXPECT_FALSE(again.add_device_to_cloud());
    device.update_box_detected_name("renamed");
    EXPECT_EQ(device.cloud.box_detected_name, "laptop");
    EXPECT_EQ(sent(), 3u);
    g_now = 1180;
    EXPECT_TRUE(again.add_device_to_cloud());
    EXPECT_EQ(sent(), 4u);
}

TEST_F(RegistrationTest, FailedRegistrationLeavesNoStampSoTheNextSightingRetries) {
    for (const char* answer : {R"({"error": {"code": 500}})", R"({"result": {}})",
                               R"({"result": {"device_id": 7}})", "not json", (const char*)0}) {
        const std::string label = answer ? answer : "no answer";
        cloud_.set("connect_device", answer);
        Device device("", kMac, {}, "laptop");
        device.cloud.device_id = "stale";
        const std::size_t before = sent();
        EXPECT_FALSE(device.add_device_to_cloud() || device.add_device_to_cloud()) << label;
        EXPECT_EQ(sent(), before + 2) << label;
        EXPECT_EQ(device.cloud.device_id, "") << label;
        EXPECT_TRUE(g_connect_device_times.empty()) << label;
    }
    Device invalid("", macaddr(), {}, "x");  // never asked
    EXPECT_FALSE(invalid.add_device_to_cloud());
    EXPECT_EQ(sent(), 10u);
}

// Rows: data/name_updates.jsonl; without a cloud_id nothing may be sent.
TEST_F(RegistrationTest, NameUpdates) {
    for (const Row& row : nk::test::rows("name_updates")) {
        const std::string name = row.str("name"), cloud_id = row.str("cloud_id");
        SCOPED_TRACE(name);
        g_connect_device_times.clear();
        g_cloud_devices_loaded = g_local_devices_loaded = true;
        if (!cloud_id.empty())
            cloud_.set("connect_device", nk::test::id_answer(cloud_id).c_str());
        Device device("d-1", kMac, {}, "laptop");
        device.cloud.device_id = "d-1";
        device.cloud.box_detected_name_history = {"old"};
        const std::size_t before = sent();

        device.update_box_detected_name(name);

        EXPECT_EQ(sent(), before + (cloud_id.empty() ? 0 : 1));
        EXPECT_EQ(device.cloud.box_detected_name, row.str("kept"));
        const bool reloads = !cloud_id.empty() && cloud_id != "d-1";
        EXPECT_EQ(g_cloud_devices_loaded || g_local_devices_loaded, !reloads);
    }
    const std::optional<Device> stored = load_device_from_storage("d-1");
    ASSERT_TRUE(stored.has_value());
    EXPECT_EQ(stored->cloud.box_detected_name, "desk");
}

Device pending(int onbox, const std::string& box_device_id) {
    Device device("d-1", kMac, {}, "laptop");
    device.cloud.device_id = "d-1";
    device.cloud.box_device_id = box_device_id;
    device.local.macips.add_mac(kMac);
    device.local.onbox_info = OnboxInfo{onbox, true, 0};
    return device;
}

// The rows: data/onbox_reports.jsonl; a null body is never reported.
TEST_F(OnboxTest, WhatIsReportedAndWhatASuccessChanges) {
    for (const Row& c : nk::test::rows("onbox_reports")) {
        const json_t* body = c.get("body");
        SCOPED_TRACE(c.text());
        Device device = pending(static_cast<int>(c.num("onbox")), c.str("box_device_id"));
        if (c.flag("with_addresses")) {
            device.cloud.onguest = 1;
            for (const char* ip : {"192.168.1.20", "fe80::1", "2001:db8::5"})
                device.local.macips.add_ip(kMac, address(ip));
            device.local.macips.add_mac(macaddr("a4:5e:60:c2:1f:0c"));  // no address: left out
        }
        const std::size_t before = sent();

        device.handle_onbox_info();

        ASSERT_EQ(sent(), before + (json_is_null(body) ? 0 : 1));
        if (!json_is_null(body)) {
            const nk::json_ptr sent_body(
                json_loads(cloud_.sent().back().second.c_str(), 0, nullptr));
            EXPECT_TRUE(json_equal(sent_body.get(), body)) << cloud_.sent().back().second;
        }
        EXPECT_FALSE(device.local.onbox_info.to_send);
        EXPECT_EQ(device.cloud.box_device_id, c.str("box_after"));
        EXPECT_EQ(nk::test::marker("d-1"), "1");
        nk::setMgmt::deleteKey("/devices/d-1");
    }
}

TEST_F(OnboxTest, GateFollowsTheSwitchWhileRunning) {
    Device device = pending(1, "box-1");
    for (const char* value : {"0", "1"}) {
        ASSERT_EQ(nk::setMgmt::setKey("/features/onbox/enabled", value), 0);
        ASSERT_TRUE(nk::test::wait_readable(gate().get_fd()));
        gate().read_fd();
        EXPECT_EQ(gate().allows(), value[0] == '1');
        device.handle_onbox_info();
        EXPECT_EQ(sent(), value[0] == '1' ? 1u : 0u);
    }
    g_feature_onbox_status = false;
    EXPECT_FALSE(gate().allows());
}

TEST_F(OnboxTest, CloudFailureKeepsTheReportPendingForALaterTry) {
    for (const Row& c : nk::test::rows("onbox_failures")) {
        SCOPED_TRACE(c.str("line"));
        g_now = 1000;
        cloud_.set("set_device_onbox", c.get("answer") ? c.str("answer").c_str() : nullptr,
                   static_cast<int>(c.num("status")));
        Device device = pending(1, "box-1");
        nk::test::StderrCapture capture;
        device.handle_onbox_info();
        EXPECT_NE(capture.text().find(c.str("line")), std::string::npos);

        const std::size_t before = sent();
        cloud_.set("set_device_onbox", R"({"result": {}})");
        g_now = 1029;  // too soon: nothing sent, still pending
        EXPECT_TRUE(device.send_onbox_to_cloud());
        EXPECT_TRUE(device.local.onbox_info.to_send);
        g_now = 1030;
        device.handle_onbox_info();
        EXPECT_EQ(sent(), before + 1);
        EXPECT_FALSE(device.local.onbox_info.to_send);
    }
}

}  // namespace

namespace {

class CloudRequestTest : public nk::test::CloudTest {
protected:
    nk::json_ptr body_{json_pack("{s:s}", "mac", "a4:5e:60:c2:1f:0b")};
};

// A good answer and the compact body are checked where devices are registered.
TEST_F(CloudRequestTest, FailuresLeaveTheSlotEmptyAndSayWhy) {
    for (const Row& row : nk::test::rows("cloud_failures")) {
        const std::string line = row.str("line");
        cloud_.set("connect_device", row.str("payload").c_str(),
                   static_cast<int>(row.num("status")));
        nk::json_ptr answer;
        nk::test::StderrCapture capture;
        EXPECT_FALSE(cloud_request(kCloudConnectDevice, body_.get(), &answer)) << line;
        EXPECT_NE(capture.text().find(line), std::string::npos) << line;
        EXPECT_EQ(answer, nullptr);
    }
}

TEST_F(CloudRequestTest, AsyncCallbackRunsOnceWithTheAnswer) {
    std::promise<std::string> answer;
    std::future<std::string> status = answer.get_future();
    cloud_.set("set_device_type", "{}", 3);
    ASSERT_TRUE(cloud_request(kCloudSetDeviceType, body_.get(), nk::test::keep_status, &answer));
    // The answer is on its way once sent; waiting for it keeps a slow machine from timing out.
    ASSERT_EQ(status.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    nkex_uninit(g_nkex);  // nothing more after this
    g_nkex = nullptr;
    EXPECT_EQ(status.get(), "3");
}

TEST_F(CloudRequestTest, RefusedAsyncRequestNeverCallsBack) {
    std::promise<std::string> answer;
    EXPECT_FALSE(
        cloud_request("cloud::connect/box_mgmt/#", body_.get(), nk::test::keep_status, &answer));
    nkex_uninit(g_nkex);
    g_nkex = nullptr;
    EXPECT_EQ(answer.get_future().wait_for(std::chrono::seconds(0)), std::future_status::timeout);
}

}  // namespace
