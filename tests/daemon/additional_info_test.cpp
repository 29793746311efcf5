// Submission of fingerprints, user agents and service info to the cloud emulator: what is sent,
// how answers and faults change the cached records, and the back-off of the retries.
#include "additional_info.h"

#include <algorithm>
#include <memory>

#include <nk/log.h>

#include "cloud_request.h"
#include "daemon_fixture.h"
#include "daemon_process.h"
#include "daemon_state.h"
#include "emulated_cloud.h"
#include "stderr_capture.h"
#include "test_data.h"
#include "wait.h"

namespace {

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

std::int32_t state_of(const std::string& name) {
    return name == "ok"         ? nk::kSubmissionOk
           : name == "deferred" ? nk::kSubmissionDeferred
                                : nk::kSubmissionFailed;
}

std::vector<nk::AdditionalInfo<nk::DhcpFingerprint>> fingerprints() {
    return records<nk::DhcpFingerprint>(g_fingerprint_cache, g_fingerprint_cache_mutex, kMac);
}

std::vector<nk::AdditionalInfo<std::string>> user_agents() {
    return records<std::string>(g_user_agent_cache, g_user_agent_cache_mutex, kMac);
}

class SubmissionTest : public nk::test::StoreTest {
protected:
    void SetUp() override {
        StoreTest::SetUp();
        ASSERT_TRUE(cloud_.start());
        g_retry_interval = {{"default", 5}};
        g_now = 1000;
        device_id_ = cloud_.emu("add " + kMac.to_string(false));
        g_devices.emplace_back("local-1", kMac, nk::ip_set{}, "laptop");
        g_devices.back().cloud.device_id = device_id_;
    }

    std::string emu(const std::string& args) { return cloud_.run(args); }
    nk::json_ptr shown() {
        return nk::json_ptr(json_loads(emu("show --json " + device_id_).c_str(), 0, nullptr));
    }

    nk::test::EmulatedCloud cloud_{dir_ / "cloud.db"};
    std::string device_id_;
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
    EXPECT_EQ(cloud_.requests_seen("set_device_additional_info", nk::test::send_probe), 2);
}

// Each retry doubles the wait, up to the cap of the state the record was in
// (data/submission_backoff.jsonl).
TEST_F(SubmissionTest, DeferredAndFailedSubmissionsAreRetriedWithBackOff) {
    for (const nk::test::Row& row : nk::test::rows("submission_backoff")) {
        const std::string fault = row.str("fault");
        const std::int32_t state = state_of(row.str("state"));
        const std::vector<long long> intervals = row.nums("intervals");
        SCOPED_TRACE(fault);
        emu("fault clear");
        emu(fmt::format("fault add {},command=set_device_additional_info", fault));
        remove_macs_from_cache(std::vector<macaddr>{kMac}, g_fingerprint_cache,
                               g_fingerprint_cache_mutex);
        ASSERT_TRUE(send_dhcp_fingerprint(kMac, kFingerprint));
        for (std::size_t i = 0; i < intervals.size(); ++i) {
            const long attempt = g_now;
            ASSERT_TRUE(nk::test::wait_until([&] {
                const auto r = fingerprints();
                return r.size() == 1 && r[0].state == state && r[0].last_attempt == attempt;
            }));
            EXPECT_EQ(fingerprints()[0].retry_interval, intervals[i]) << i;
            retry_fingerprints();  // not due yet: nothing happens
            EXPECT_EQ(fingerprints()[0].last_attempt, attempt);
            if (i + 1 == intervals.size())
                break;  // no answer left in flight for the next row
            g_now += intervals[i] + 1;
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
    for (int i = 0; i < 16; ++i)
        ASSERT_TRUE(send_user_agent(kMac, fmt::format("agent/{}", i)));
    ASSERT_TRUE(nk::test::wait_until([] {
        const auto r = user_agents();
        return r.size() == 15 && std::all_of(r.begin(), r.end(), [](const auto& ua) {
                   return ua.state == nk::kSubmissionOk;
               });
    }));
    EXPECT_EQ(json_array_size(json_object_get(shown().get(), "user_agents")), 15u);

    g_now += 50;
    ASSERT_TRUE(send_user_agent(kMac, "agent/3"));
    ASSERT_TRUE(nk::test::wait_until([] {
        const auto r = user_agents();
        return r.size() == 15 && r[3].last_attempt == g_now && r[3].state == nk::kSubmissionOk;
    }));
}

TEST_F(SubmissionTest, UnknownDevicesAndBadKindsAreRefused) {
    g_devices.back().cloud.device_id.clear();
    EXPECT_FALSE(send_dhcp_fingerprint(kMac, kFingerprint));
    EXPECT_FALSE(send_user_agent(kMac, "agent/1"));
    EXPECT_TRUE(fingerprints().empty());
    EXPECT_TRUE(user_agents().empty());
    EXPECT_FALSE(send_device_additional_info(device_id_, nk::json_ptr(json_object()),
                                             static_cast<AdditionalInfoType>(9)));
    EXPECT_FALSE(send_device_additional_info(device_id_, nullptr, kAdditionalInfoAvahi));
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
    EXPECT_FALSE(send(kAdditionalInfoAvahi));
}

// The answers the emulator never gives, handed to the callbacks as the bus would.
TEST(SubmissionAnswerTest, EachAnswerLeavesTheRecordInItsState) {
    for (const nk::test::Row& c : nk::test::rows("submission_answers")) {
        const std::string status = c.str("status"), data = c.str("data");
        const bool user_agent = c.flag("user_agent");
        SCOPED_TRACE(
            fmt::format("{} {} {}", user_agent ? "user agent" : "fingerprint", status, data));
        Message m{};
        std::snprintf(m.status, sizeof(m.status), "%s", status.c_str());
        m.data = data.data();
        m.length = data.size();
        std::int32_t state = -1;
        if (user_agent) {
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
        EXPECT_EQ(state, state_of(c.str("state")));
    }
}

}  // namespace
