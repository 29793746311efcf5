// A scripted cloud connector on a real broker, with the real settings store and device table.
#pragma once

#include <gtest/gtest.h>

#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include <nk/devmgmt.h>
#include <nk/nkex.h>
#include <nk/setmgmt.h>

#include "daemon_state.h"
#include "onbox_guardian.h"
#include "temp_dir.h"
#include "test_broker.h"

namespace nk::test {

// Answers each command (the last piece of its name) as scripted; the others go unanswered.
struct ScriptedCloud {
    std::mutex mutex;
    std::map<std::string, std::pair<int, std::string>> answers;  // status and text
    std::vector<std::pair<std::string, std::string>> requests;   // command and body
    std::vector<std::uint64_t> ids;                              // of each request
    nkex_handle* handle = nullptr;

    void set(const std::string& command, const char* text, int status = 0) {
        const std::lock_guard lock(mutex);
        if (text)
            answers[command] = {status, text};
        else
            answers.erase(command);
    }
    std::vector<std::pair<std::string, std::string>> sent() {
        const std::lock_guard lock(mutex);
        return requests;
    }
    // Answers the n-th request (one left unanswered) now.
    void answer(std::size_t n, const std::string& text) {
        std::uint64_t id = 0;
        {
            const std::lock_guard lock(mutex);
            id = ids.at(n);
        }
        nkex_send_response(handle, 0, id, text.data(), text.size());
    }
    static void serve(const Message* m, void* context) {
        auto* cloud = static_cast<ScriptedCloud*>(context);
        std::string command(m->name);
        command.erase(0, command.rfind('/') + 1);
        const std::lock_guard lock(cloud->mutex);
        cloud->requests.emplace_back(command, std::string(m->data ? m->data : "", m->length));
        cloud->ids.push_back(m->id);
        const auto it = cloud->answers.find(command);
        if (it != cloud->answers.end())
            nkex_send_response(cloud->handle, it->second.first, m->id, it->second.second.data(),
                               it->second.second.size());
    }
};

inline std::string id_answer(const std::string& id) {
    return R"({"result": {"device_id": ")" + id + R"("}})";
}

// g_now pinned at 1000, the BOX is "box-1", and the cloud knows every MAC as "d-1".
class CloudTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(nk::setMgmt::init(), 0);
        ASSERT_TRUE(broker_.start());
        cloud_.handle = nkex_init("nkcloudd", ScriptedCloud::serve, &cloud_, 1);
        ASSERT_NE(cloud_.handle, nullptr);
        const char* names[] = {"cloud::connect/box_mgmt/#"};
        ASSERT_EQ(nkex_subscribe(cloud_.handle, names, 1), 0);
        g_nkex = nkex_init("nkdevicediscovery", nullptr, nullptr, 1);
        ASSERT_NE(g_nkex, nullptr);
        g_now = 1000;
        g_device_id = "box-1";
        g_retry_interval = {{"add_device_to_cloud", 180},
                            {"update_box_detected_name", 180},
                            {"send_onbox_to_cloud", 30}};
        cloud_.set("connect_device", id_answer("d-1").c_str());
        cloud_.set("get_device_info", R"({"error": {"code": 404}})");
        cloud_.set("set_device_onbox", R"({"result": {}})");
    }
    void TearDown() override {
        nkex_uninit(g_nkex);
        nkex_uninit(cloud_.handle);
        nk::onbox::Guardian::instance().uninit();
        nk::devMgmt::close_table();
        nk::setMgmt::uninit();
    }
    std::size_t sent() { return cloud_.sent().size(); }

    TempDir dir_;
    ScopedEnv settings_{"NK_SETTINGS_DIR", dir_ / "settings"};
    ScopedEnv table_{"NK_DEVMGMT_DIR", dir_ / "devmgmt"};
    TestBroker broker_{dir_.path()};
    ScopedEnv broker_env_{"NKEX_BROKER", broker_.address()};
    ScopedEnv timeout_env_{"NKEX_TIMEOUT_MS", "300"};
    ScriptedCloud cloud_;
};

}  // namespace nk::test
