// The daemon in-process on a real broker, settings store and device table, with a scripted cloud
// connector for answers chosen case by case.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <future>
#include <optional>

#include <nk/devmgmt.h>
#include <nk/json.h>
#include <nk/setmgmt.h>

#include "bus_event_handlers.h"
#include "bus_peer.h"
#include "cloud_request.h"
#include "daemon_state.h"
#include "network_info.h"
#include "onbox_guardian.h"
#include "scripted_cloud.h"
#include "temp_dir.h"
#include "test_broker.h"
#include "test_data.h"

namespace nk::test {

// A request that only the cloud emulator's log shows: the probe of EmulatedCloud::requests_seen.
inline void send_probe(const std::string& text) {
    const nk::json_ptr body(json_pack("{s:s}", "probe", text.c_str()));
    nk::json_ptr answer;
    cloud_request("cloud::connect/box_mgmt/probe", body.get(), &answer);
}

// A bus answer's status, kept in the std::promise<std::string> it is given; a second answer
// throws, which ends the test binary.
inline void keep_status(void* promise, const Message* response) {
    static_cast<std::promise<std::string>*>(promise)->set_value(response->status);
}

// A device's marker in the settings store: "0" or "1" once stored, "absent" before.
inline std::string marker(const std::string& id) {
    return nk::setMgmt::getKeyValue("/devices/" + id, "absent");
}

// A settings store and a device table of the case's own.
class SettingsTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(nk::setMgmt::init(), 0); }
    void TearDown() override {
        nk::devMgmt::close_table();
        nk::setMgmt::uninit();
    }

    TempDir dir_;
    ScopedEnv settings_{"NK_SETTINGS_DIR", dir_ / "settings"};
    ScopedEnv table_{"NK_DEVMGMT_DIR", dir_ / "devmgmt"};
};

// With a broker, and the daemon's connection to it.
class StoreTest : public SettingsTest {
protected:
    explicit StoreTest(const char* bus_timeout_ms = "300")
        : timeout_env_("NKEX_TIMEOUT_MS", bus_timeout_ms) {}
    void SetUp() override {
        SettingsTest::SetUp();
        ASSERT_TRUE(broker_.start());
        ASSERT_NE(g_nkex = nkex_init("nkdevicediscovery", nullptr, nullptr, 1), nullptr);
    }
    void TearDown() override {
        nkex_uninit(g_nkex);
        g_nkex = nullptr;
        nk::onbox::Guardian::instance().uninit();
        SettingsTest::TearDown();
    }

    TestBroker broker_{dir_.path()};
    ScopedEnv broker_env_{"NKEX_BROKER", broker_.address()};
    ScopedEnv timeout_env_;
};

// g_now pinned at 1000, the BOX is "box-1", and the cloud knows every MAC as "d-1".
class CloudTest : public StoreTest {
protected:
    void SetUp() override {
        StoreTest::SetUp();
        ASSERT_TRUE(cloud_.connect());
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
        nkex_uninit(cloud_.handle);
        cloud_.handle = nullptr;
        StoreTest::TearDown();
    }
    std::size_t sent() { return cloud_.sent().size(); }

    ScriptedCloud cloud_;
};

// As the daemon runs: its bus connection serving the events it subscribes to, its wake-up pipe,
// and a LAN br-lan (192.168.1.0/24, the BOX's MAC 02:00:00:00:00:fe) beside a WAN eth0.
class EventLoopTest : public CloudTest {
protected:
    static constexpr const char* kBoxMac = "02:00:00:00:00:fe";

    void SetUp() override {
        CloudTest::SetUp();
        ASSERT_EQ(::pipe2(g_event_pipe, O_CLOEXEC | O_NONBLOCK), 0);
        {
            const std::lock_guard lock(g_interfaces_mutex);
            nk::netMgmt::Interface lan("br-lan", nk::netMgmt::LAN, false);
            lan.mac = macaddr(kBoxMac);
            lan.ipv4.emplace(address("192.168.1.1"), address("255.255.255.0"));
            g_interfaces = {lan, nk::netMgmt::Interface("eth0", nk::netMgmt::WAN, false)};
        }
        nkex_uninit(g_nkex);
        ASSERT_NE(g_nkex = nkex_init("nkdevicediscovery", nkex_msg_callback, nullptr, 1), nullptr);
        ASSERT_EQ(nkex_subscribe(g_nkex, kSubscribedEvents.data(), kSubscribedEvents.size()), 0);
    }
    void TearDown() override {
        ::close(g_event_pipe[0]);
        ::close(g_event_pipe[1]);
        g_event_pipe[0] = g_event_pipe[1] = -1;
        CloudTest::TearDown();
    }

    static int wakes() {
        int n = 0;
        char byte = 0;
        while (::read(g_event_pipe[0], &byte, 1) == 1)
            ++n;
        return n;
    }
};

}  // namespace nk::test
