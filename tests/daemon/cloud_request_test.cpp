// The cloud request layer against a scripted connector on a real broker.
#include "cloud_request.h"

#include "daemon_fixture.h"
#include "stderr_capture.h"
#include "wait.h"

namespace {

using nk::test::CloudTest;

class CloudRequestTest : public CloudTest {
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

// Filled on the bus thread.
struct Answers {
    std::mutex mutex;
    std::vector<std::string> statuses;
    std::size_t count() {
        const std::lock_guard lock(mutex);
        return statuses.size();
    }
};

void on_answer(void* context, const Message* response) {
    auto* answers = static_cast<Answers*>(context);
    const std::lock_guard lock(answers->mutex);
    answers->statuses.emplace_back(response->status);
}

TEST_F(CloudRequestTest, AsyncCallbackRunsOnceWithTheAnswer) {
    Answers answers;
    cloud_.set("set_device_type", "{}", 3);
    ASSERT_TRUE(cloud_request(kCloudSetDeviceType, body_.get(), on_answer, &answers));
    // The answer is on its way once sent; waiting for it keeps a slow machine from timing out.
    ASSERT_TRUE(nk::test::wait_until([&] { return answers.count() == 1; }));
    nkex_uninit(g_nkex);  // nothing more after this
    g_nkex = nullptr;
    ASSERT_EQ(answers.statuses.size(), 1u);
    EXPECT_EQ(answers.statuses[0], "3");
}

TEST_F(CloudRequestTest, RefusedAsyncRequestNeverCallsBack) {
    Answers answers;
    EXPECT_FALSE(cloud_request("cloud::connect/box_mgmt/#", body_.get(), on_answer, &answers));
    nkex_uninit(g_nkex);
    g_nkex = nullptr;
    EXPECT_TRUE(answers.statuses.empty());
}

}  // namespace
