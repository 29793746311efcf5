// The cloud request layer against a scripted connector on a real broker.
#include "cloud_request.h"

#include "daemon_fixture.h"
#include "stderr_capture.h"

namespace {

class CloudRequestTest : public nk::test::CloudTest {
protected:
    nk::json_ptr body_{json_pack("{s:s}", "mac", "a4:5e:60:c2:1f:0b")};
};

// A good answer and the compact body are checked where devices are registered.
TEST_F(CloudRequestTest, FailuresLeaveTheSlotEmptyAndSayWhy) {
    for (const nk::json_ptr& row : nk::test::rows("cloud_failures")) {
        const std::string line = nk::test::str(row.get(), "line");
        cloud_.set("connect_device", nk::test::str(row.get(), "payload").c_str(),
                   static_cast<int>(nk::test::num(row.get(), "status")));
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
