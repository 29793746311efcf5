// The queue processors on a real broker, settings store and device table, with a scripted
// cloud: answers to device-id requests, registration in the same pass, removals before
// additions, cached additional info, and when service information is due
// (data/service_info_due.jsonl).

#include <deque>
#include <set>

#include <fmt/format.h>
#include <nk/constants.h>

#include "additional_info.h"
#include "bus_event_handlers.h"
#include "cloud_request.h"
#include "daemon_fixture.h"
#include "daemon_state.h"
#include "device_identity.h"
#include "device_storage.h"
#include "event_processors.h"
#include "host_names.h"
#include "network_info.h"
#include "pending_devices.h"
#include "queue_limits.h"
#include "rotated_macs.h"
#include "service_info.h"
#include "service_submission.h"
#include "stderr_capture.h"
#include "subprocess_messages.h"
#include "test_data.h"
#include "user_agents.h"
#include "wait.h"
#include "waiting_answers.h"

namespace {

using namespace std::chrono_literals;

const macaddr kKnown("a4:5e:60:c2:1f:0b");
const macaddr kUnknown("a4:5e:60:c2:1f:0c");

class EventProcessorsTest : public nk::test::EventLoopTest {
protected:
    void SetUp() override {
        EventLoopTest::SetUp();
        notices_.emplace("asker", std::vector<const char*>{"permanent_device_id"});
        // A device the cloud knows, as a load leaves it.
        Device tv("d-7", kKnown, {address("192.168.1.20")}, "tv");
        tv.cloud.device_id = "d-7";
        g_devices.push_back(tv);
    }
    static void answered(void* promise, const Message* response) {
        static_cast<std::promise<std::string>*>(promise)->set_value(
            std::string(response->data ? response->data : "", response->length));
    }
    // Sends a request as another daemon does; a time-out of the bus answers it too.
    std::future<std::string> ask(const std::string& mac, const std::string& ip) {
        std::promise<std::string>& asked = asked_.emplace_back();
        const std::string data = fmt::format(R"({{"mac": "{}", "ip": "{}"}})", mac, ip);
        EXPECT_EQ(nkex_send_request(notices_->handle(), "request_device_id", data.data(),
                                    data.size(), answered, &asked),
                  0);
        return asked.get_future();
    }
    static std::size_t queued_requests() {
        const std::lock_guard lock(g_devid_requests_mutex);
        return g_devid_requests.size();
    }
    std::vector<std::string> ids_of(const std::string& command) {
        std::vector<std::string> ids;
        for (const auto& [name, body] : cloud_.sent()) {
            const nk::json_ptr root(json_loads(body.c_str(), 0, nullptr));
            if (name == command)
                ids.push_back(nk::json_string_member(
                    json_object_get(root.get(), "connect_destination"), "device_id"));
        }
        return ids;
    }

    // The cloud takes the additional info it is sent.
    void accept_additional_info() {
        set_leases_received(true);
        g_feature_additional_info = true;
        cloud_.set("set_device_type", R"({"result": {"status": "ok"}})");
        cloud_.set("set_device_additional_info", R"({"result": {"status": 0}})");
    }
    static void queue_dhcp(const macaddr& mac, const char* options, const char* hostname = "") {
        nk::DhcpResult dhcp;
        dhcp.mac = mac;
        dhcp.hostname = hostname;
        dhcp.fingerprint.option_list = options;
        const std::lock_guard lock(g_dhcp_results_mutex);
        g_dhcp_results.push_back(dhcp);
    }

    std::deque<std::promise<std::string>> asked_;  // stable addresses for the callbacks
    std::optional<nk::test::Peer> notices_;
};

TEST_F(EventProcessorsTest, EveryRequestIsAnsweredAfterTheFirstLeasesAndUnknownMacsRegistered) {
    std::vector<std::pair<std::future<std::string>, std::string>> answers;
    for (const nk::test::Row& c : nk::test::rows("device_id_requests"))
        answers.emplace_back(ask(c.str("mac"), c.str("ip")), c.str("answer"));
    ASSERT_TRUE(nk::test::wait_until([] { return queued_requests() == 5; }));

    process_event_pipe();
    EXPECT_EQ(queued_requests(), 5u) << "answered before the first lease table";

    set_leases_received(true);
    process_event_pipe();
    for (auto& [answer, expected] : answers)
        EXPECT_EQ(answer.get(), expected);

    // The unknown MAC was registered in the same pass, and its askers told the permanent id.
    ASSERT_NE(find_device_by_mac(kUnknown), nullptr);
    EXPECT_EQ(find_device_by_mac(kUnknown)->cloud.device_id, "d-1");
    EXPECT_TRUE(g_pending_devices.empty());
    EXPECT_EQ(cloud_.bodies("connect_device").size(), 1u);
    EXPECT_EQ(
        notices_->first("permanent_device_id", 5s),
        R"({"temp_device_id": "00000000-0000-0000-0000-000000000001", "cloud_device_id": "d-1"})");
}

// A silent cloud holds a synchronous request for the bus's time-out, the askers' own.
TEST_F(EventProcessorsTest, RequestsAreAnsweredWhileTheLoopWaitsOnTheCloud) {
    ASSERT_TRUE(open_device_id_wake());
    serve_device_ids_while_waiting();
    set_answering_while_waiting(true);
    set_leases_received(true);
    cloud_.set("set_device_onbox", nullptr);
    std::future<std::string> asked = ask(kKnown.to_string(false), "192.168.1.20");
    ASSERT_TRUE(nk::test::wait_until([] { return queued_requests() == 1; }));

    nk::json_ptr answer;
    const nk::json_ptr body(json_object());
    EXPECT_FALSE(cloud_request(kCloudSetDeviceOnbox, body.get(), &answer));
    ASSERT_EQ(asked.wait_for(std::chrono::seconds(0)), std::future_status::ready);
    EXPECT_EQ(asked.get(), R"({"device_id": "d-7", "mac": "a4:5e:60:c2:1f:0b"})");
}

TEST_F(EventProcessorsTest, AFullQueueAnswersAtOnceWithNoIdAndSaysSoOnce) {
    set_leases_received(true);
    {
        const std::lock_guard lock(g_devid_requests_mutex);
        g_devid_requests.resize(kMaxQueuedDeviceIdRequests);
    }
    nk::test::StderrCapture capture;
    std::future<std::string> first = ask(kKnown.to_string(false), "192.168.1.20");
    std::future<std::string> second = ask(kKnown.to_string(false), "192.168.1.20");
    EXPECT_EQ(first.get(), R"({"device_id": "", "mac": "a4:5e:60:c2:1f:0b"})");
    second.wait();
    EXPECT_EQ(queued_requests(), kMaxQueuedDeviceIdRequests);
    const std::string log = capture.text();
    const std::string line = "device_id requests queue full (16384 waiting)";
    EXPECT_NE(log.find(line), std::string::npos) << log;
    EXPECT_EQ(log.find(line), log.rfind(line)) << "the line is repeated: " << log;
}

TEST_F(EventProcessorsTest, RemovalRunsBeforeAdditionAndBlocksTheMacsRegistration) {
    ASSERT_TRUE(write_device_to_storage(g_devices[0], true));
    const std::string info = R"({"result": {"display_name": "Kitchen TV", "macs": [")" +
                             kKnown.to_string(false) + R"("]}})";
    cloud_.set("get_device_info", info.c_str());
    {
        const std::lock_guard lock(g_removed_devices_mutex);
        g_removed_devices = {"d-7", "d-404"};
    }
    {
        const std::lock_guard lock(g_new_devices_mutex);
        g_new_devices = {"d-7"};
    }
    process_event_pipe();
    ASSERT_EQ(g_devices.size(), 1u);
    EXPECT_EQ(g_devices[0].cloud.device_id, "d-7");
    EXPECT_EQ(g_devices[0].cloud.display_name, "Kitchen TV");  // fetched afresh
    EXPECT_TRUE(load_device_from_storage("d-7").has_value());

    // The removed device's MAC comes back on its own: refused for the interval.
    g_devices.clear();
    save_pending_device(get_device_id(kKnown), kKnown, address("192.168.1.20"));
    process_event_pipe();
    EXPECT_EQ(cloud_.bodies("connect_device").size(), 0u);
    EXPECT_TRUE(g_devices.empty());
}

TEST_F(EventProcessorsTest, CachedUserAgentsAndFingerprintsAreNotSentAgain) {
    accept_additional_info();
    cloud_.set("connect_device", nk::test::id_answer("d-7").c_str());  // the name update
    for (int pass = 0; pass < 2; ++pass) {
        save_user_agent("192.168.1.20", kKnown.to_string(false), "curl/8.0");
        queue_dhcp(kKnown, "1,3,6", "tv-2");
        queue_dhcp(kKnown, "", "tv-3");
        process_event_pipe();
    }
    // The submissions are asynchronous; a synchronous request behind them arrives after them.
    nk::json_ptr answer;
    const nk::json_ptr body(json_object());
    EXPECT_TRUE(cloud_request(kCloudSetDeviceOnbox, body.get(), &answer));
    EXPECT_EQ(cloud_.bodies("set_device_type").size(), 1u);
    EXPECT_EQ(cloud_.bodies("set_device_additional_info").size(), 1u);
    EXPECT_EQ(g_hostnames[kKnown], "tv-3");
}

// A client's DHCP and browsing come before its lease, so before its registration; the cloud
// refuses them under the temporary id, and the client may never send them again.
TEST_F(EventProcessorsTest, InfoRefusedUnderTheTemporaryIdIsResubmittedAtRegistration) {
    set_leases_received(true);
    g_feature_additional_info = true;
    const std::string info = R"({"result": {"macs": [")" + kUnknown.to_string(false) + R"("]}})";
    cloud_.set("get_device_info", info.c_str());
    cloud_.set("set_device_type", R"({"error": {"code": 404}})");
    cloud_.set("set_device_additional_info", R"({"error": {"code": 404}})");
    const std::string temporary = get_device_id(kUnknown);
    nk::DhcpFingerprint fingerprint;
    fingerprint.option_list = "1,3,6";
    ASSERT_TRUE(send_user_agent(kUnknown, "curl/8.0"));
    ASSERT_TRUE(send_dhcp_fingerprint(kUnknown, fingerprint));
    ASSERT_TRUE(nk::test::wait_until([&] {
        const std::lock_guard lock(g_fingerprint_cache_mutex);
        return !g_fingerprint_cache.get(nk::due_for_retry{g_now + 10}).empty();
    }));

    accept_additional_info();
    save_pending_device(temporary, kUnknown, address("192.168.1.30"));
    process_event_pipe();
    ASSERT_TRUE(nk::test::wait_until(
        [&] { return cloud_.bodies("set_device_additional_info").size() == 2; }));
    ASSERT_TRUE(nk::test::wait_until([&] { return cloud_.bodies("set_device_type").size() == 2; }));
    for (const char* command : {"set_device_type", "set_device_additional_info"})
        EXPECT_EQ(ids_of(command), (std::vector<std::string>{temporary, "d-1"})) << command;
}

// A phone that took a random MAC sends its DHCP messages before the leases say whose MAC it is:
// they wait for the leases, go to the device it was, and spend no temporary id. What nothing
// explains is taken as it came once the wait is over.
TEST_F(EventProcessorsTest, WhatARotatedMacSendsReachesTheDeviceItWas) {
    accept_additional_info();
    cloud_.set("connect_device", nk::test::id_answer("d-7").c_str());
    const macaddr rotated("02:11:22:33:44:55"), stranger("06:11:22:33:44:66");
    queue_dhcp(rotated, "1,3,6");
    queue_dhcp(stranger, "1,3,15");
    // It browses before the leases name it, from an address they do not show.
    save_user_agent("192.168.1.77", rotated.to_string(false), "phone/1.0");
    process_event_pipe();
    EXPECT_TRUE(ids_of("set_device_additional_info").empty());
    EXPECT_TRUE(ids_of("set_device_type").empty());

    {
        const std::lock_guard lock(g_mangled_macs_mutex);
        g_mangled_macs = {{kKnown, rotated, address("192.168.1.20")}};
    }
    process_event_pipe();
    ASSERT_TRUE(
        nk::test::wait_until([&] { return ids_of("set_device_additional_info").size() == 1; }));
    EXPECT_EQ(ids_of("set_device_additional_info"), std::vector<std::string>{"d-7"});
    ASSERT_TRUE(nk::test::wait_until([&] { return ids_of("set_device_type").size() == 1; }));
    EXPECT_EQ(ids_of("set_device_type"), std::vector<std::string>{"d-7"});
    EXPECT_EQ(g_temporary_device_ids.count(mac_key(rotated)), 0u);

    g_now += kDhcpWait;
    process_event_pipe();
    ASSERT_TRUE(
        nk::test::wait_until([&] { return ids_of("set_device_additional_info").size() == 2; }));
    EXPECT_TRUE(is_temporary(ids_of("set_device_additional_info").back()));
}

TEST_F(EventProcessorsTest, ServiceInformationIsSentWhenDue) {
    using nk::avahi::AvahiInfo;
    // The moved printer keeps the service name: the same service to the cloud.
    const std::map<std::string, AvahiInfo> services = {
        {"printer", {"_ipp._tcp", "printer", "", 631}},
        {"printer_moved", {"_ipp._tcp", "printer-2", "", 632}},
        {"web", {"_http._tcp", "printer", "", 80}}};
    const auto set_of = [&](const nk::test::Row& row, const char* key) {
        std::set<AvahiInfo> out;
        for (const std::string& name : row.strs(key))
            out.insert(services.at(name));
        return out;
    };
    g_avahi_submission_interval = 600;
    for (const nk::test::Row& c : nk::test::rows("service_info_due")) {
        SCOPED_TRACE(c.str("what"));
        cloud_.set("set_device_additional_info", R"({"result": {}})",
                   static_cast<int>(c.num("cloud_status")));
        g_devices[0].local.avahi_info = {static_cast<std::time_t>(c.num("last")),
                                         set_of(c, "current"), set_of(c, "kept"),
                                         c.flag("pending")};
        const std::size_t before = cloud_.bodies("set_device_additional_info").size();
        process_avahi_services();
        EXPECT_EQ(cloud_.bodies("set_device_additional_info").size() - before,
                  c.flag("sent") ? 1u : 0u);
        const AdditionalInfoCache<AvahiInfo>& after = g_devices[0].local.avahi_info;
        EXPECT_EQ(after.last_submission, c.num("last_after"));
        EXPECT_EQ(after.pending, c.flag("pending_after"));
    }
}

}  // namespace
