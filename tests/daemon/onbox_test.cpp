// Onbox reports to the cloud and the gate that switches them off.

#include "daemon_fixture.h"
#include "device.h"
#include "stderr_capture.h"
#include "wait.h"

namespace {

const macaddr kMac("a4:5e:60:c2:1f:0b");

nk::onbox::Guardian& gate() {
    return nk::onbox::Guardian::instance();
}

class OnboxTest : public nk::test::CloudTest {
protected:
    void SetUp() override {
        CloudTest::SetUp();
        g_feature_onbox_status = true;
        ASSERT_TRUE(gate().init());
    }
};

// A device with a report pending.
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
    for (const nk::json_ptr& row : nk::test::rows("onbox_reports")) {
        const json_t* c = row.get();
        const json_t* body = json_object_get(c, "body");
        SCOPED_TRACE(nk::json_dump_compact(c));
        Device device =
            pending(static_cast<int>(nk::test::num(c, "onbox")), nk::test::str(c, "box_device_id"));
        if (nk::test::flag(c, "with_addresses")) {
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
        EXPECT_EQ(device.cloud.box_device_id, nk::test::str(c, "box_after"));
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
    for (const nk::json_ptr& row : nk::test::rows("onbox_failures")) {
        const json_t* c = row.get();
        SCOPED_TRACE(nk::test::str(c, "line"));
        g_now = 1000;
        cloud_.set("set_device_onbox",
                   json_object_get(c, "answer") ? nk::test::str(c, "answer").c_str() : nullptr,
                   static_cast<int>(nk::test::num(c, "status")));
        Device device = pending(1, "box-1");
        nk::test::StderrCapture capture;
        device.handle_onbox_info();
        EXPECT_NE(capture.text().find(nk::test::str(c, "line")), std::string::npos);

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
