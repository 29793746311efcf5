// The bus event handlers on a real broker: what each event queues, what it drops with which
// line, and that the loop is woken for what was queued.
#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <string>
#include <vector>

#include <fmt/format.h>
#include <nk/json.h>
#include <nk/log.h>
#include <nk/util.h>

#include "bus_event_handlers.h"
#include "daemon_state.h"
#include "dhcp_captures.h"
#include "network_info.h"
#include "stderr_capture.h"
#include "temp_dir.h"
#include "test_broker.h"
#include "wait.h"

namespace {

using nk::test::ScopedEnv;

const char* const kBoxMac = "02:00:00:00:00:fe";

std::string hex_to_base64(const std::string& hex) {
    std::string bytes;
    for (std::size_t i = 0; i + 1 < hex.size(); i += 2)
        bytes.push_back(static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16)));
    return nk::base64_encode(bytes);
}

const nk::test::CapturedDhcp& captured(bool v6, const std::string& type) {
    for (const auto& p : nk::test::kCapturedDhcp) {
        if (p.v6 == v6 && type == p.message_type && *p.option_list)
            return p;
    }
    throw std::runtime_error("no captured " + type);
}

std::string dhcp_event(const std::string& netif, const std::string& mac, const std::string& payload,
                       const std::string& version = "") {
    return fmt::format(R"({{"netif": "{}", "source_mac": "{}", "raw_payload": "{}"{}}})", netif,
                       mac, payload, version.empty() ? "" : R"(, "version": )" + version);
}

template <typename T>
std::vector<T> take(std::vector<T>& queue, std::mutex& mutex) {
    const std::lock_guard lock(mutex);
    std::vector<T> out;
    out.swap(queue);
    return out;
}

class EventHandlersTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(::pipe2(g_event_pipe, O_CLOEXEC | O_NONBLOCK), 0);
        {
            const std::lock_guard lock(g_interfaces_mutex);
            nk::netMgmt::Interface lan("br-lan", nk::netMgmt::LAN, false);
            lan.mac = macaddr(kBoxMac);
            lan.ipv4.emplace(address("192.168.1.1"), address("255.255.255.0"));
            g_interfaces = {lan, nk::netMgmt::Interface("eth0", nk::netMgmt::WAN, false)};
        }
        ASSERT_TRUE(broker_.start());
        ASSERT_NE(g_nkex = nkex_init("nkdevicediscovery", nkex_msg_callback, nullptr, 1), nullptr);
        ASSERT_EQ(nkex_subscribe(g_nkex, kSubscribedEvents.data(), kSubscribedEvents.size()), 0);
        ASSERT_NE(sifter_ = nkex_init("sifter", nullptr, nullptr, 1), nullptr);
        nk::log::set_level(nk::log::DEBUG);
    }
    void TearDown() override {
        nk::log::set_level(nk::log::INFO);
        nkex_uninit(sifter_);
        nkex_uninit(g_nkex);
        ::close(g_event_pipe[0]);
        ::close(g_event_pipe[1]);
        g_event_pipe[0] = g_event_pipe[1] = -1;
    }

    // Sends the event, then a marker behind it; once the marker is queued, the event has been
    // handled. Returns the log lines of its handling.
    std::string deliver(const std::string& event, const std::string& data) {
        nk::test::StderrCapture capture;
        EXPECT_EQ(nkex_send_message(sifter_, event.c_str(), data.data(), data.size()), 0);
        const std::string marker = fmt::format("marker-{}", ++markers_);
        const std::string text = fmt::format(
            R"({{"app_fields": {{"event": "new_device", "event_params": {{"device_id": "{}"}}}}}})",
            marker);
        EXPECT_EQ(nkex_send_message(sifter_, "devmgmt:device_inventory", text.data(), text.size()),
                  0);
        EXPECT_TRUE(nk::test::wait_until([&] {
            const std::lock_guard lock(g_new_devices_mutex);
            return !g_new_devices.empty() && g_new_devices.back() == marker;
        }));
        {
            const std::lock_guard lock(g_new_devices_mutex);
            g_new_devices.pop_back();
        }
        return capture.text();
    }

    // Bytes written to the wake-up pipe since the last call.
    int wakes() {
        int n = 0;
        char byte = 0;
        while (::read(g_event_pipe[0], &byte, 1) == 1)
            ++n;
        return n;
    }

    nk::test::TempDir dir_;
    nk::test::TestBroker broker_{dir_.path()};
    ScopedEnv broker_env_{"NKEX_BROKER", broker_.address()};
    ScopedEnv timeout_env_{"NKEX_TIMEOUT_MS", "500"};
    nkex_handle* sifter_ = nullptr;
    int markers_ = 0;
};

TEST_F(EventHandlersTest, DhcpPayloadsAreParsedQueuedOrDroppedWithTheirLine) {
    const auto& discover = captured(false, "Discover");
    const auto& solicit = captured(true, "Solicit");
    const std::string v4 = hex_to_base64(discover.udp);
    const std::string v6 = hex_to_base64(solicit.udp);
    const std::string mac = discover.source_mac;
    const std::string big(1 << 20, 'A');
    struct Case {
        std::string data;
        const char* line;
        int queued;  // 0 none, 4 or 6: one result of that version
    };
    const std::vector<Case> cases = {
        {dhcp_event("br-lan", mac, v4), "Received DHCP Discover from src_mac", 4},
        {dhcp_event("br-lan", solicit.source_mac, v6, "6"), "Received SOLICIT", 6},
        // A boolean version always means DHCPv6; without one the packet is read as DHCPv4.
        {dhcp_event("br-lan", solicit.source_mac, v6, "true"), "Received SOLICIT", 6},
        {dhcp_event("br-lan", solicit.source_mac, v6, "false"), "Received SOLICIT", 6},
        {dhcp_event("br-lan", solicit.source_mac, v6), "smaller than minimum 236", 0},
        {dhcp_event("br-lan", mac, v4, "true"), "Invalid", 0},
        {dhcp_event("eth0", mac, v4), "Skipping DHCP received from wan", 0},
        {dhcp_event("br-lan", kBoxMac, v4), "Skipping DHCP with BOX src_mac 02:00:00:00:00:fe", 0},
        {"", "Failed to parse it into JSON", 0},
        {big, "Failed to parse it into JSON", 0},
        {"[]", "netif missing from dhcp_payload JSON", 0},
        {R"({"netif": 7, "source_mac": "02:4e:4b:00:00:01", "raw_payload": "AAAA"})",
         "netif missing from dhcp_payload JSON", 0},
        {R"({"netif": "br-lan", "source_mac": null, "raw_payload": "AAAA"})",
         "Failed to extract source_mac", 0},
        {R"({"netif": "br-lan", "source_mac": "not a mac", "raw_payload": "AAAA"})",
         "Failed to extract source_mac", 0},
        {R"({"netif": "br-lan", "source_mac": "02:4e:4b:00:00:01"})",
         "Failed to extract raw_payload", 0},
        {dhcp_event("br-lan", mac, "%%%%"),
         "Failed to base64 decode raw value of dhcp_payload %%%%", 0},
        {dhcp_event("br-lan", mac, ""), "Failed to base64 decode raw value", 0},
        {dhcp_event("br-lan", mac, nk::base64_encode("1234567")), "Failed to skip UDP header", 0},
        {dhcp_event("br-lan", mac, nk::base64_encode("12345678")),
         "Size 0 smaller than minimum 236", 0},
        {dhcp_event("br-lan", mac, big), "larger than a UDP datagram", 0},
        // A vendor class item whose length field is cut: the reader throws, the handler drops.
        {dhcp_event("br-lan", mac,
                    hex_to_base64("0222022300120000"
                                  "011234560010000800000137000161"
                                  "00"),
                    "6"),
         "Malformed DHCPv6 message from 02:4e:4b:00:00:01: truncated vendor class item", 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.data.substr(0, 120));
        // The bus traces what it receives; a megabyte of it would fill the captured stderr.
        nk::log::set_level(c.data.size() > 100000 ? nk::log::INFO : nk::log::DEBUG);
        const std::string log = deliver("sifter_dhcp_payload", c.data);
        EXPECT_NE(log.find(c.line), std::string::npos) << log.substr(0, 2000);
        const std::vector<nk::DhcpResult> results = take(g_dhcp_results, g_dhcp_results_mutex);
        ASSERT_EQ(results.size(), c.queued ? 1u : 0u);
        EXPECT_EQ(wakes(), c.queued ? 2 : 1);  // the marker wakes too
        if (c.queued) {
            EXPECT_EQ(results[0].fingerprint.version, c.queued == 6);
            EXPECT_FALSE(results[0].fingerprint.option_list.empty());
        }
    }
}

TEST_F(EventHandlersTest, UserAgentsFromLanClientsAreQueued) {
    const auto event = [](const char* netif, const char* mac, const char* ip,
                          const std::string& ua) {
        return fmt::format(
            R"({{"src_netif": "{}", "src_mac": "{}", "src_ip": "{}", "user_agent": "{}"}})", netif,
            mac, ip, ua);
    };
    struct Case {
        std::string data;
        const char* line;  // "" when nothing is logged
        bool queued;
    };
    const std::vector<Case> cases = {
        {event("br-lan", "02:4e:4b:00:00:01", "192.168.1.20", "curl/7.88.1"), "", true},
        {event("eth0", "02:4e:4b:00:00:01", "192.168.1.20", "curl/7.88.1"),
         "Skipping user agent received from wan", false},
        {event("br-lan", kBoxMac, "192.168.1.20", "curl/7.88.1"),
         "Invalid user_agent parameters: src_mac=02:00:00:00:00:fe, src_ip=192.168.1.20", false},
        {event("br-lan", "02:4e:4b:00:00:01", "10.0.0.20", "curl/7.88.1"),
         "Invalid user_agent parameters", false},
        {event("br-lan", "junk", "192.168.1.20", "curl/7.88.1"), "Invalid user_agent parameters",
         false},
        {event("br-lan", "02:4e:4b:00:00:01", "192.168.1.20", ""), "", false},
        {event("br-lan", "02:4e:4b:00:00:01", "192.168.1.20", std::string(3000, 'u')),
         "user agent of 3000 bytes from mac 02:4e:4b:00:00:01 dropped", false},
        {R"({"src_mac": "02:4e:4b:00:00:01", "src_ip": "192.168.1.20", "user_agent": "x"})",
         "src_netif missing from sifter_user_agent JSON", false},
        {R"({"src_netif": "br-lan", "src_ip": "192.168.1.20", "user_agent": "x"})", "", false},
        {"not json", "", false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.data.substr(0, 120));
        const std::string log = deliver("sifter_user_agent", c.data);
        if (*c.line) {
            EXPECT_NE(log.find(c.line), std::string::npos) << log;
        } else {
            EXPECT_EQ(log.find("handle_event_sifter_user_agent()"), std::string::npos) << log;
        }
        const std::vector<UserAgent> queued = take(g_user_agents, g_user_agents_mutex);
        ASSERT_EQ(queued.size(), c.queued ? 1u : 0u);
        EXPECT_EQ(wakes(), c.queued ? 2 : 1);
        if (c.queued) {
            EXPECT_EQ(queued[0].mac, macaddr("02:4e:4b:00:00:01"));
            EXPECT_EQ(queued[0].ip, address("192.168.1.20"));
            EXPECT_EQ(queued[0].user_agent, "curl/7.88.1");
        }
    }
}

TEST_F(EventHandlersTest, InventoryEventsQueueTheirDevices) {
    const auto inventory = [](const char* event, const std::string& params) {
        return fmt::format(R"({{"app_fields": {{"event": "{}", "event_params": {}}}}})", event,
                           params);
    };
    const auto changed = [&](const char* fields) {
        return inventory("device_info_changed",
                         fmt::format(R"({{"device_id": "d-1", "fields": {}}})", fields));
    };
    struct Case {
        std::string data;
        bool cloud_loaded;
        std::vector<std::string> removed;
        std::vector<std::string> changed_fields;  // of one ChangedInfo; empty for none
        bool is_additional;
    };
    const std::vector<Case> cases = {
        // Before the list is loaded a removal only tells the loop that one happened.
        {inventory("device_removed", R"({"device_id": "d-1"})"), false, {}, {}, false},
        {inventory("device_removed", R"({"device_id": "d-1"})"), true, {"d-1"}, {}, false},
        {inventory("device_removed", R"({})"), true, {}, {}, false},
        {changed(R"(["device_type"])"),
         true,
         {},
         {"device_type", "scan_level", "va_scan_level"},
         false},
        {changed(R"(["apps", "capabilities"])"),
         true,
         {},
         {"apps", "scan_level", "va_scan_level"},
         false},
        {changed(R"(["box_detected_name", 5, "unknown"])"), true, {}, {"box_detected_name"}, true},
        {changed(R"(["scan_level", "apps"])"), true, {}, {"scan_level", "apps"}, false},
        {changed(R"(["unknown", "traffic_rules"])"), true, {}, {}, false},
        {changed(R"("device_type")"), true, {}, {}, false},
        {inventory("device_renamed", R"({"device_id": "d-1"})"), true, {}, {}, false},
        {R"({"app_fields": {"event": "device_removed"}})", true, {}, {}, false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.data);
        {
            const std::lock_guard lock(g_devices_loaded_mutex);
            g_cloud_devices_loaded = c.cloud_loaded;
            g_device_removed_flag = false;
        }
        deliver("devmgmt:device_inventory", c.data);
        EXPECT_EQ(take(g_removed_devices, g_removed_devices_mutex), c.removed);
        const std::vector<ChangedInfo> queued = take(g_changed_devices, g_changed_devices_mutex);
        ASSERT_EQ(queued.size(), c.changed_fields.empty() ? 0u : 1u);
        if (!queued.empty()) {
            EXPECT_EQ(queued[0].device_id, "d-1");
            EXPECT_EQ(queued[0].fields, c.changed_fields);
            EXPECT_EQ(queued[0].is_additional, c.is_additional);
        }
        const std::lock_guard lock(g_devices_loaded_mutex);
        EXPECT_EQ(g_device_removed_flag,
                  !c.cloud_loaded && c.data.find("removed") != std::string::npos);
    }
}

std::atomic<int> g_answers{0};
std::string g_last_status;

void count_answer(void* /*context*/, const Message* response) {
    g_last_status = response->status;
    ++g_answers;
}

TEST_F(EventHandlersTest, DeviceIdRequestsAreQueuedWithTheirIdAndBadOnesGetNoAnswer) {
    struct Case {
        std::string data;
        const char* line;
        bool queued;
    };
    for (const Case& c : std::vector<Case>{
             {R"({"mac": "02:4e:4b:00:00:01", "ip": "192.168.1.20"})",
              "mac=02:4e:4b:00:00:01, ip=192.168.1.20", true},
             {R"({"mac": "02:4e:4b:00:00:01"})", "ip not found in request_device_id: ", false},
             {R"({"ip": "192.168.1.20"})", "mac not found in request_device_id: ", false},
             {R"({"mac": 1, "ip": "192.168.1.20"})", "mac not found", false},
             {"{", "Failed to parse message into a JSON: \"{\"", false},
         }) {
        SCOPED_TRACE(c.data);
        g_answers = 0;
        nk::test::StderrCapture capture;
        ASSERT_EQ(nkex_send_request(sifter_, "request_device_id", c.data.data(), c.data.size(),
                                    count_answer, nullptr),
                  0);
        // Nobody answers here: the request times out, which is the event waited for.
        ASSERT_TRUE(nk::test::wait_until([] { return g_answers == 1; }));
        EXPECT_EQ(g_last_status, NKEX_STATUS_TIMEOUT);
        const std::string log = capture.text();
        EXPECT_NE(log.find(c.line), std::string::npos) << log;
        const std::vector<DeviceIdRequest> queued = take(g_devid_requests, g_devid_requests_mutex);
        ASSERT_EQ(queued.size(), c.queued ? 1u : 0u);
        if (c.queued) {
            EXPECT_EQ(queued[0].mac, macaddr("02:4e:4b:00:00:01"));
            EXPECT_EQ(queued[0].ip, address("192.168.1.20"));
            EXPECT_NE(queued[0].request_id, 0u);
        }
    }
}

TEST_F(EventHandlersTest, DeviceNotFoundMakesTheListLoadAgain) {
    {
        const std::lock_guard lock(g_devices_loaded_mutex);
        g_cloud_devices_loaded = g_local_devices_loaded = true;
    }
    const std::string log = deliver("device_not_found", "");
    EXPECT_NE(log.find("Received 'device_not_found'. list_devices will be called."),
              std::string::npos);
    const std::lock_guard lock(g_devices_loaded_mutex);
    EXPECT_FALSE(g_cloud_devices_loaded);
    EXPECT_FALSE(g_local_devices_loaded);
}

}  // namespace
