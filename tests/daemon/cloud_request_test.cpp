// The cloud request layer against a scripted connector on a real broker.
#include "cloud_request.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <mutex>
#include <string>

#include "globals.h"
#include "stderr_capture.h"
#include "temp_dir.h"
#include "test_broker.h"
#include "wait.h"

namespace {

using namespace std::chrono_literals;

// Answers every request on its subscription with a fixed status and payload.
struct Connector {
    std::string status = "0";
    std::string payload = R"({"result": {"device_id": "d-1"}})";
    std::atomic<int> requests{0};
    std::mutex mutex;
    std::string last_body;
    nkex_handle* handle = nullptr;
};

void answer(const Message* m, void* context) {
    auto* c = static_cast<Connector*>(context);
    {
        std::lock_guard lock(c->mutex);
        c->last_body.assign(m->data ? m->data : "", m->length);
    }
    ++c->requests;
    nkex_send_response(c->handle, std::atoi(c->status.c_str()), m->id, c->payload.data(),
                       c->payload.size());
}

class CloudRequestTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(broker_.start());
        connector_.handle = nkex_init("nkcloudd", answer, &connector_, 1);
        ASSERT_NE(connector_.handle, nullptr);
        const char* names[] = {"cloud::connect/box_mgmt/#"};
        ASSERT_EQ(nkex_subscribe(connector_.handle, names, 1), 0);
        g_nkex = nkex_init("nkdevicediscovery", nullptr, nullptr, 1);
        ASSERT_NE(g_nkex, nullptr);
    }
    void TearDown() override {
        nkex_uninit(g_nkex);
        g_nkex = nullptr;
        nkex_uninit(connector_.handle);
    }

    nk::test::TempDir dir_;
    nk::test::TestBroker broker_{dir_.path()};
    nk::test::ScopedEnv broker_env_{"NKEX_BROKER", broker_.address()};
    nk::test::ScopedEnv timeout_env_{"NKEX_TIMEOUT_MS", "500"};
    Connector connector_;
    nk::json_ptr body_{json_pack("{s:s}", "mac", "a4:5e:60:c2:1f:0b")};
};

TEST_F(CloudRequestTest, AnswerIsParsedAndBodySentCompact) {
    nk::json_ptr answer;
    ASSERT_TRUE(cloud_request(kCloudConnectDevice, body_.get(), &answer));
    EXPECT_STREQ(
        json_string_value(nk::json_object_get_recursive(answer.get(), {"result", "device_id"})),
        "d-1");
    std::lock_guard lock(connector_.mutex);
    EXPECT_EQ(connector_.last_body, R"({"mac": "a4:5e:60:c2:1f:0b"})");
}

TEST_F(CloudRequestTest, FailuresLeaveTheSlotEmptyAndSayWhy) {
    struct Case {
        const char* status;
        const char* payload;
        const char* line;
    };
    for (const Case& c : {Case{"3", "{}", "connect_device returned status=3"},
                          Case{"0", "", "connect_device: error parsing response"},
                          Case{"0", "not json", "connect_device: error parsing response"}}) {
        connector_.status = c.status;
        connector_.payload = c.payload;
        nk::json_ptr answer;
        nk::test::StderrCapture capture;
        EXPECT_FALSE(cloud_request(kCloudConnectDevice, body_.get(), &answer)) << c.line;
        EXPECT_NE(capture.text().find(c.line), std::string::npos) << c.line;
        EXPECT_EQ(answer, nullptr);
    }
}

TEST_F(CloudRequestTest, NoConnectorMeansFailedAfterTheTimeout) {
    nkex_uninit(connector_.handle);
    connector_.handle = nullptr;
    nk::json_ptr answer;
    nk::test::StderrCapture capture;
    EXPECT_FALSE(cloud_request(kCloudListDevices, body_.get(), &answer));
    EXPECT_NE(capture.text().find("list_devices_v2 failed"), std::string::npos);
}

void on_answer(void* context, const Message* response) {
    auto* statuses = static_cast<std::vector<std::string>*>(context);
    statuses->emplace_back(response->status);
}

TEST_F(CloudRequestTest, AsyncCallbackRunsOnceWithTheAnswer) {
    std::vector<std::string> statuses;
    connector_.status = "3";
    ASSERT_TRUE(cloud_request(kCloudSetDeviceType, body_.get(), on_answer, &statuses));
    ASSERT_TRUE(nk::test::wait_until([&] { return connector_.requests == 1; }));
    nkex_uninit(g_nkex);  // delivers what is pending, then nothing more
    g_nkex = nullptr;
    ASSERT_EQ(statuses.size(), 1u);
    EXPECT_EQ(statuses[0], "3");
}

TEST_F(CloudRequestTest, RefusedAsyncRequestNeverCallsBack) {
    std::vector<std::string> statuses;
    EXPECT_FALSE(cloud_request("cloud::connect/box_mgmt/#", body_.get(), on_answer, &statuses));
    nkex_uninit(g_nkex);
    g_nkex = nullptr;
    EXPECT_TRUE(statuses.empty());
}

}  // namespace
