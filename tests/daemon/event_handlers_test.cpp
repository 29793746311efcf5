// The bus event handlers on a real broker: what each event queues, what it drops with which
// line, and that the loop is woken for what was queued (rows: data/bus_events.jsonl).

#include <fmt/format.h>
#include <nk/log.h>
#include <nk/util.h>

#include "bus_event_handlers.h"
#include "daemon_fixture.h"
#include "daemon_state.h"
#include "network_info.h"
#include "stderr_capture.h"
#include "wait.h"

namespace {

using nk::test::Row;

template <typename T>
std::vector<T> take(std::vector<T>& queue, std::mutex& mutex) {
    const std::lock_guard lock(mutex);
    std::vector<T> out;
    out.swap(queue);
    return out;
}

class EventHandlersTest : public nk::test::EventLoopTest {
protected:
    void SetUp() override {
        EventLoopTest::SetUp();
        ASSERT_NE(sifter_ = nkex_init("sifter", nullptr, nullptr, 1), nullptr);
        nk::log::set_level(nk::log::DEBUG);
    }
    void TearDown() override {
        nk::log::set_level(nk::log::INFO);
        nkex_uninit(sifter_);
        EventLoopTest::TearDown();
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

    nkex_handle* sifter_ = nullptr;
    int markers_ = 0;
};

// "$BIG" in a row stands for a megabyte.
std::string expand(std::string data) {
    const std::size_t at = data.find("$BIG");
    return at == std::string::npos ? data : data.replace(at, 4, std::string(1 << 20, 'A'));
}

// Every row starts from the row's load state and checks every queue, so an event that lands
// in the wrong queue shows as well as one that is dropped.
TEST_F(EventHandlersTest, EachEventQueuesWhatItCarriesOrIsDroppedWithItsLine) {
    for (const Row& c : nk::test::rows("bus_events")) {
        const std::string event = c.str("event"), data = expand(c.str("data"));
        SCOPED_TRACE(event + " " + data.substr(0, 120));
        {
            const std::lock_guard lock(g_devices_loaded_mutex);
            g_cloud_devices_loaded = c.flag("cloud_loaded");
            g_local_devices_loaded = c.flag("local_loaded");
            g_device_removed_flag = false;
        }
        std::string log;
        if (c.flag("request")) {
            std::promise<std::string> status;
            nk::test::StderrCapture capture;
            ASSERT_EQ(nkex_send_request(sifter_, event.c_str(), data.data(), data.size(),
                                        nk::test::keep_status, &status),
                      0);
            // Nobody answers here: the request times out, which is the event waited for.
            EXPECT_EQ(status.get_future().get(), NKEX_STATUS_TIMEOUT);
            log = capture.text();
        } else {
            // The bus traces what it receives; a megabyte of it would fill the captured stderr.
            nk::log::set_level(data.size() > 100000 ? nk::log::INFO : nk::log::DEBUG);
            log = deliver(event, data);
        }
        EXPECT_NE(log.find(c.str("line")), std::string::npos) << log.substr(0, 2000);
        if (!c.str("no_line").empty()) {
            EXPECT_EQ(log.find(c.str("no_line")), std::string::npos) << log;
        }

        const auto dhcp = take(g_dhcp_results, g_dhcp_results_mutex);
        const auto agents = take(g_user_agents, g_user_agents_mutex);
        const auto requests = take(g_devid_requests, g_devid_requests_mutex);
        const long long version = c.num("dhcp");
        ASSERT_EQ(dhcp.size(), version ? 1u : 0u);
        if (version) {
            EXPECT_EQ(dhcp[0].fingerprint.version, version == 6);
            EXPECT_FALSE(dhcp[0].fingerprint.option_list.empty());
        }
        std::vector<std::string> seen;
        for (const auto& agent : agents)
            seen.push_back(fmt::format("{} {} {}", agent.mac, agent.ip, agent.user_agent));
        EXPECT_EQ(seen, c.strs("user_agents"));
        seen.clear();
        for (const auto& request : requests)
            seen.push_back(fmt::format("{} {}", request.mac, request.ip));
        EXPECT_EQ(seen, c.strs("requests"));
        const int woken = wakes(), queued = static_cast<int>(dhcp.size() + agents.size());
        EXPECT_TRUE(event.rfind("sifter_", 0) != 0 || woken == queued + 1) << woken;

        EXPECT_EQ(take(g_removed_devices, g_removed_devices_mutex), c.strs("removed"));
        const std::vector<ChangedInfo> changed = take(g_changed_devices, g_changed_devices_mutex);
        ASSERT_EQ(changed.size(), c.strs("changed").empty() ? 0u : 1u);
        if (!changed.empty()) {
            EXPECT_EQ(changed[0].device_id, "d-1");
            EXPECT_EQ(changed[0].fields, c.strs("changed"));
            EXPECT_EQ(changed[0].is_additional, c.flag("additional"));
        }
        const std::lock_guard lock(g_devices_loaded_mutex);
        EXPECT_EQ(g_device_removed_flag, c.flag("removal_flag"));
        EXPECT_EQ(g_cloud_devices_loaded, c.flag("cloud_loaded") && !c.flag("reloads"));
        EXPECT_EQ(g_local_devices_loaded, c.flag("local_loaded") && !c.flag("reloads"));
    }
}

}  // namespace
