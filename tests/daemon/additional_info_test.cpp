// Submission of fingerprints, user agents and service info to the cloud emulator: what is sent,
// how answers and faults change the cached records, and the back-off of the retries.
#include "additional_info.h"

#include <signal.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include <fmt/format.h>
#include <nk/json.h>
#include <nk/log.h>
#include <nk/setmgmt.h>

#include "cloud_request.h"
#include "daemon_process.h"
#include "daemon_state.h"
#include "stderr_capture.h"
#include "temp_dir.h"
#include "test_broker.h"
#include "wait.h"

namespace {

using nk::test::ScopedEnv;

const macaddr kMac("02:4e:4b:00:00:01");
const nk::DhcpFingerprint kFingerprint{"1 28 2 3 15 6 119 12 44 47 26 121 42", "", false};
const nk::DhcpFingerprint kFingerprintV6{"23 24 39 31", "40712; dhcpcd-9.4.1:Linux:x86_64", true};

template <typename T, typename Cache>
std::vector<nk::AdditionalInfo<T>> records(Cache& cache, std::mutex& mutex, const macaddr& mac) {
    const std::lock_guard lock(mutex);
    auto all = cache.get([](const auto&) { return true; });
    std::vector<nk::AdditionalInfo<T>> out;
    for (const auto& value : all[mac])
        out.push_back(value.value);
    return out;
}

std::vector<nk::AdditionalInfo<nk::DhcpFingerprint>> fingerprints() {
    return records<nk::DhcpFingerprint>(g_fingerprint_cache, g_fingerprint_cache_mutex, kMac);
}

std::vector<nk::AdditionalInfo<std::string>> user_agents() {
    return records<std::string>(g_user_agent_cache, g_user_agent_cache_mutex, kMac);
}

class SubmissionTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(nk::setMgmt::init(), 0);
        ASSERT_TRUE(broker_.start());
        ASSERT_TRUE(
            cloud_.start({NK_CLOUD_EMU_BIN, "-f", "--log-level", "3", "--db", db_, "serve"}));
        ASSERT_TRUE(cloud_.wait_for_line("cloud ready"));
        ASSERT_NE(g_nkex = nkex_init("nkdevicediscovery", nullptr, nullptr, 1), nullptr);
        g_retry_interval = {{"default", 5}};
        g_now = 1000;
        std::string out;
        ASSERT_EQ(nk::test::run_command(fmt::format("{} --db {} add {}", NK_CLOUD_EMU_BIN, db_,
                                                    kMac.to_string(false)),
                                        &out),
                  0);
        device_id_ = out.substr(0, out.find('\n'));
        g_devices.emplace_back("local-1", kMac, nk::ip_set{}, "laptop");
        g_devices.back().cloud.device_id = device_id_;
    }
    void TearDown() override {
        nkex_uninit(g_nkex);
        cloud_.stop(SIGTERM);
        nk::setMgmt::uninit();
    }

    std::string emu(const std::string& args) {
        std::string out;
        EXPECT_EQ(
            nk::test::run_command(fmt::format("{} --db {} {}", NK_CLOUD_EMU_BIN, db_, args), &out),
            0)
            << args;
        return out;
    }

    nk::json_ptr shown() {
        return nk::json_ptr(json_loads(emu("show --json " + device_id_).c_str(), 0, nullptr));
    }

    // Requests of a command the cloud has seen; a later probe request showing in its log
    // proves every earlier line read.
    int requests_seen(const std::string& command) {
        const std::string probe = fmt::format("probe-{}", ++probes_);
        const nk::json_ptr body(json_pack("{s:s}", "probe", probe.c_str()));
        nk::json_ptr answer;
        cloud_request("cloud::connect/box_mgmt/probe", body.get(), &answer);
        EXPECT_TRUE(cloud_.wait_for_line('"' + probe + '"'));
        return cloud_.count_lines("request " + command + " id=");
    }

    nk::test::TempDir dir_;
    ScopedEnv settings_{"NK_SETTINGS_DIR", dir_ / "settings"};
    nk::test::TestBroker broker_{dir_.path()};
    ScopedEnv broker_env_{"NKEX_BROKER", broker_.address()};
    ScopedEnv timeout_env_{"NKEX_TIMEOUT_MS", "300"};
    const std::string db_ = dir_ / "cloud.db";
    nk::test::DaemonProcess cloud_;
    std::string device_id_;
    int probes_ = 0;
};

TEST_F(SubmissionTest, AnAcceptedFingerprintIsStoredAndNeverSentAgain) {
    ASSERT_TRUE(send_dhcp_fingerprint(kMac, kFingerprint));
    ASSERT_TRUE(send_dhcp_fingerprint(kMac, kFingerprintV6));
    ASSERT_TRUE(nk::test::wait_until([] {
        const auto r = fingerprints();
        return r.size() == 2 && r[0].state == nk::kSubmissionOk && r[1].state == nk::kSubmissionOk;
    }));
    const nk::json_ptr device = shown();
    EXPECT_EQ(nk::json_dump_compact(nk::json_object_get_recursive(
                  device.get(), {"additional_info", "fingerprint", "data"})),
              R"({"option_list":"1 28 2 3 15 6 119 12 44 47 26 121 42","vendor_class":""})");
    EXPECT_EQ(nk::json_dump_compact(nk::json_object_get_recursive(
                  device.get(), {"additional_info", "fingerprintv6", "data"})),
              R"({"option_list":"23 24 39 31","vendor_class":"40712; dhcpcd-9.4.1:Linux:x86_64"})");

    g_now += 100000;
    retry_fingerprints();
    EXPECT_EQ(requests_seen("set_device_additional_info"), 2);
}

// Each retry doubles the wait, up to the cap of the state the record was in.
TEST_F(SubmissionTest, DeferredAndFailedSubmissionsAreRetriedWithBackOff) {
    struct Case {
        const char* fault;
        std::int32_t state;
        std::vector<std::int32_t> intervals;  // after the first send and each retry
    };
    for (const Case& c : {
             Case{"status=3", nk::kSubmissionDeferred, {5, 10, 20, 40, 80, 160, 320, 600, 600}},
             Case{"error=500",
                  nk::kSubmissionFailed,
                  {5, 10, 20, 40, 80, 160, 320, 640, 1280, 2560, 3600, 3600}},
             Case{"drop", nk::kSubmissionFailed, {5, 10}},  // the answer's time-out fails it
         }) {
        SCOPED_TRACE(c.fault);
        emu("fault clear");
        emu(fmt::format("fault add {},command=set_device_additional_info", c.fault));
        remove_macs_from_cache(std::vector<macaddr>{kMac}, g_fingerprint_cache,
                               g_fingerprint_cache_mutex);
        ASSERT_TRUE(send_dhcp_fingerprint(kMac, kFingerprint));
        for (std::size_t i = 0; i < c.intervals.size(); ++i) {
            const long attempt = g_now;
            ASSERT_TRUE(nk::test::wait_until([&] {
                const auto r = fingerprints();
                return r.size() == 1 && r[0].state == c.state && r[0].last_attempt == attempt;
            }));
            EXPECT_EQ(fingerprints()[0].retry_interval, c.intervals[i]) << i;
            retry_fingerprints();  // not due yet: nothing happens
            EXPECT_EQ(fingerprints()[0].last_attempt, attempt);
            if (i + 1 == c.intervals.size())
                break;  // no answer left in flight for the next case
            g_now += c.intervals[i] + 1;
            retry_fingerprints();
        }
    }
    // Once the cloud takes it, it is done.
    emu("fault clear");
    g_now += 10000;
    retry_fingerprints();
    ASSERT_TRUE(
        nk::test::wait_until([] { return fingerprints().at(0).state == nk::kSubmissionOk; }));
    EXPECT_NE(nk::json_object_get_recursive(shown().get(), {"additional_info", "fingerprint"}),
              nullptr);
}

TEST_F(SubmissionTest, AMacGetsFifteenUserAgentsAndKnownOnesAreResent) {
    for (int i = 0; i < 16; ++i) {
        nk::test::StderrCapture capture;
        ASSERT_TRUE(send_user_agent(kMac, fmt::format("agent/{}", i)));
        const bool skipped =
            capture.text().find("skip sending user agent agent/15 for mac") != std::string::npos;
        EXPECT_EQ(skipped, i == 15) << i;
    }
    ASSERT_TRUE(nk::test::wait_until([] {
        const auto r = user_agents();
        return r.size() == 15 && std::all_of(r.begin(), r.end(), [](const auto& ua) {
                   return ua.state == nk::kSubmissionOk;
               });
    }));
    EXPECT_EQ(json_array_size(json_object_get(shown().get(), "user_agents")), 15u);

    g_now += 50;
    nk::test::StderrCapture capture;
    ASSERT_TRUE(send_user_agent(kMac, "agent/3"));
    EXPECT_NE(capture.text().find("sending user_agent to cloud for: " + device_id_ + ", agent/3"),
              std::string::npos);
    ASSERT_TRUE(nk::test::wait_until([] {
        const auto r = user_agents();
        return r.size() == 15 && r[3].last_attempt == g_now && r[3].state == nk::kSubmissionOk;
    }));
}

TEST_F(SubmissionTest, UnknownDevicesAndBadKindsAreRefused) {
    g_devices.back().cloud.device_id.clear();
    {
        nk::test::StderrCapture capture;
        EXPECT_FALSE(send_dhcp_fingerprint(kMac, kFingerprint));
        EXPECT_FALSE(send_user_agent(kMac, "agent/1"));
        EXPECT_NE(capture.text().find("BUG: empty device id for mac 02:4e:4b:00:00:01"),
                  std::string::npos);
    }
    EXPECT_TRUE(fingerprints().empty());
    EXPECT_TRUE(user_agents().empty());

    nk::test::StderrCapture capture;
    EXPECT_FALSE(send_device_additional_info(device_id_, nk::json_ptr(json_object()),
                                             static_cast<AdditionalInfoType>(9)));
    EXPECT_FALSE(send_device_additional_info(device_id_, nullptr, kAdditionalInfoAvahi));
    EXPECT_NE(capture.text().find("BUG: Invalid type"), std::string::npos);
}

// Service info waits for the answer: any answer that parses counts, an error one too.
TEST_F(SubmissionTest, ServiceInfoCountsAsSentWhenAnAnswerCame) {
    const auto send = [&](AdditionalInfoType type) {
        return send_device_additional_info(device_id_,
                                           nk::json_ptr(json_pack("[{s:s}]", "name", "x")), type);
    };
    EXPECT_TRUE(send(kAdditionalInfoAvahi));
    EXPECT_TRUE(send(kAdditionalInfoUpnp));
    EXPECT_TRUE(send(kAdditionalInfoNetbios));
    EXPECT_EQ(nk::json_dump_compact(nk::json_object_get_recursive(
                  shown().get(), {"additional_info", "upnp", "data"})),
              R"([{"name":"x"}])");
    emu("fault add error=500,command=set_device_additional_info,count=1");
    EXPECT_TRUE(send(kAdditionalInfoNetbios));
    emu("fault add drop,command=set_device_additional_info,count=1");
    nk::test::StderrCapture capture;
    EXPECT_FALSE(send(kAdditionalInfoAvahi));
    EXPECT_NE(capture.text().find("Could not set_device_additional_info type=avahi"),
              std::string::npos);
}

// The answers the emulator never gives, handed to the callbacks as the bus would.
Message answer(const char* status, const std::string& data) {
    Message m{};
    std::snprintf(m.status, sizeof(m.status), "%s", status);
    m.data = data.data();
    m.length = data.size();
    return m;
}

TEST(SubmissionAnswerTest, EachAnswerLeavesTheRecordInItsState) {
    struct Case {
        const char* status;
        std::string data;
        bool user_agent;
        std::int32_t state;
        const char* line;
    };
    const std::vector<Case> cases = {
        {"0", R"({"result": {"status": 0}})", false, nk::kSubmissionOk, "as OK"},
        {"0", R"({"result": {"status": false}})", false, nk::kSubmissionOk, "as OK"},
        {"0", R"({"result": {"status": true}})", false, nk::kSubmissionFailed, "status 1 in"},
        {"0", R"({"result": {"status": 2}})", false, nk::kSubmissionFailed, "status 1 in"},
        {"0", R"({"result": {"status": "ok"}})", false, nk::kSubmissionFailed,
         "error extracting status from response"},
        {"0", R"({"result": {}})", false, nk::kSubmissionFailed, "error extracting status"},
        {"0", R"({"error": {"code": 500}})", false, nk::kSubmissionFailed,
         "error parsing response"},
        {"0", "", false, nk::kSubmissionFailed, "error parsing response"},
        {"3", "", false, nk::kSubmissionDeferred, "response status=3"},
        {"110", "", false, nk::kSubmissionFailed, "response status=110"},
        {"x", "", false, nk::kSubmissionFailed, "response status=x"},
        {"0", R"({"result": {"status": "ok"}})", true, nk::kSubmissionOk, "as OK"},
        {"0", R"({"result": {"status": 0}})", true, nk::kSubmissionFailed,
         "error extracting status from response for mac=02:4e:4b:00:00:01, user_agent=agent/1"},
        {"0", R"({"result": {"status": "denied"}})", true, nk::kSubmissionFailed,
         "status 1 in response for mac"},
        {"0", R"({"error": {}})", true, nk::kSubmissionFailed, "error extracting result"},
        {"0", "not json", true, nk::kSubmissionFailed, "error parsing response for mac"},
        {"3", "", true, nk::kSubmissionDeferred, "response status=3 for user_agent=agent/1"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(
            fmt::format("{} {} {}", c.user_agent ? "user agent" : "fingerprint", c.status, c.data));
        const Message m = answer(c.status, c.data);
        nk::test::StderrCapture capture;
        std::int32_t state = -1;
        if (c.user_agent) {
            remove_macs_from_cache(std::vector<macaddr>{kMac}, g_user_agent_cache,
                                   g_user_agent_cache_mutex);
            g_user_agent_cache.add(kMac, nk::new_submission(std::string("agent/1"), 0, 1000, 5));
            user_agent_callback(
                std::make_unique<UserAgentContext>(UserAgentContext{"agent/1", kMac}).release(),
                &m);
            state = user_agents().at(0).state;
        } else {
            remove_macs_from_cache(std::vector<macaddr>{kMac}, g_fingerprint_cache,
                                   g_fingerprint_cache_mutex);
            g_fingerprint_cache.add(kMac, nk::new_submission(kFingerprint, 0, 1000, 5));
            fingerprint_callback(
                std::make_unique<FingerprintContext>(FingerprintContext{kFingerprint, kMac})
                    .release(),
                &m);
            state = fingerprints().at(0).state;
        }
        EXPECT_EQ(state, c.state);
        EXPECT_NE(capture.text().find(c.line), std::string::npos);
    }
}

}  // namespace
