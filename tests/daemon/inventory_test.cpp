// The inventory: the device record and its lookups, the key lock with its deferred actions, the
// purge of connect attempts, temporary ids and their announcements, ignored MACs, pending
// devices and host names.
#include <sys/wait.h>

#include <cstring>
#include <unordered_set>

#include <nk/constants.h>
#include <nk/log.h>

#include "daemon_fixture.h"
#include "daemon_state.h"
#include "device.h"
#include "device_identity.h"
#include "device_storage.h"
#include "host_names.h"
#include "ignored_macs.h"
#include "pending_devices.h"
#include "stderr_capture.h"
#include "temp_dir.h"
#include "test_broker.h"
#include "wait.h"

namespace {

using namespace std::chrono_literals;

const macaddr kMac1("02:00:00:00:00:01");
const macaddr kMac2("02:00:00:00:00:02");
const macaddr kMac3("02:00:00:00:00:03");

Device device(const std::string& id, const macaddr& mac, const std::string& ip) {
    Device d("", mac, {address(ip)}, "host");
    d.cloud.device_id = id;
    return d;
}

TEST(Registry, FirstMatchWinsAndMacLookupSearchesOnlyTheCloudHalf) {
    g_devices = {device("a", kMac1, "10.0.0.1"), device("b", kMac1, "fe80::1"),
                 device("a", kMac2, "10.0.0.2")};
    g_devices[1].local.macips.add_ip(kMac3, address("10.0.0.3"));

    EXPECT_EQ(find_device_by_dev_id("a"), &g_devices[0]);
    EXPECT_EQ(find_device_by_mac(kMac1), &g_devices[0]);
    EXPECT_EQ(find_device_by_mac(kMac2), &g_devices[2]);
    EXPECT_EQ(find_device_by_mac(kMac3), nullptr);
    EXPECT_EQ(find_device_by_ip(address("fe80::1")), &g_devices[1]);
    EXPECT_EQ(find_device_by_ip(address("10.0.0.3")), &g_devices[1]);
    EXPECT_EQ(find_device_by_ip(address("10.0.0.4")), nullptr);

    const std::string prefix(nk::kTemporaryDeviceIdPrefix);
    EXPECT_TRUE(is_temporary(prefix));
    EXPECT_FALSE(is_temporary(prefix.substr(1)));
    EXPECT_FALSE(is_temporary(""));
}

TEST(CloudData, EqualityComparesEveryBitOfCreated) {
    CloudData high;
    high.created = std::int64_t{1} << 32;
    EXPECT_EQ(CloudData(), CloudData());
    EXPECT_NE(high, CloudData());
}

class DeviceKeyTest : public nk::test::SettingsTest {
protected:
    Device device_ = device("dev1", kMac1, "10.0.0.1");
};

TEST_F(DeviceKeyTest, DeferredEventsRunOnceAfterTheUnlock) {
    ASSERT_TRUE(device_.lock_device_key());
    std::vector<std::string> ran;
    const std::string key = device_.device_key();
    device_.external_events.emplace_back(
        [&] { ran.push_back(nk::setMgmt::unlockKey(key) < 0 ? "released" : "still held"); });
    device_.external_events.emplace_back([&] { ran.push_back("second"); });

    EXPECT_TRUE(device_.unlock_device_key());
    EXPECT_EQ(ran, (std::vector<std::string>{"released", "second"}));
    EXPECT_FALSE(device_.unlock_device_key());
    EXPECT_EQ(ran.size(), 2u);
}

TEST_F(DeviceKeyTest, KeyHeldByAnotherProcessFailsAfterTheBoundedWait) {
    int locked[2];
    int release[2];
    ASSERT_EQ(::pipe(locked), 0);
    ASSERT_EQ(::pipe(release), 0);
    const pid_t child = ::fork();
    if (child == 0) {
        const char ok = device_.lock_device_key() ? '1' : '0';
        (void)!::write(locked[1], &ok, 1);
        ::close(release[1]);
        char byte = 0;
        (void)!::read(release[0], &byte, 1);  // until the parent lets go
        ::_exit(0);
    }
    char ok = 0;
    ASSERT_EQ(::read(locked[0], &ok, 1), 1);
    ASSERT_EQ(ok, '1');

    nk::setMgmt::set_lock_timeout_ms(100);
    EXPECT_FALSE(device_.lock_device_key());
    for (const int fd : {locked[0], locked[1], release[0], release[1]})
        ::close(fd);
    ASSERT_EQ(::waitpid(child, nullptr, 0), child);
    EXPECT_TRUE(device_.lock_device_key());
}

TEST(Purge, RemovesAttemptsOlderThanTenMinutesAtMostEveryFewSeconds) {
    g_now = 10000;
    g_connect_device_times = {{kMac1, g_now - 601}, {kMac2, g_now - 600}, {kMac3, g_now}};
    purge_old_mac_timestamps();
    EXPECT_EQ(g_connect_device_times.size(), 2u);
    EXPECT_EQ(g_connect_device_times.count(kMac1), 0u);
    g_now += 4;  // kMac2 is too old now, but the purge is not due yet
    purge_old_mac_timestamps();
    EXPECT_EQ(g_connect_device_times.size(), 2u);
    g_now += 1;
    purge_old_mac_timestamps();
    EXPECT_EQ(g_connect_device_times.size(), 1u);
}

}  // namespace

namespace {

macaddr nth_mac(int n) {
    return macaddr(fmt::format("02:00:00:00:{:02x}:{:02x}", n >> 8, n & 0xff));
}

std::string temporary_id(int n) {
    return fmt::format("00000000-0000-0000-0000-{:012d}", n);
}

class IdentityTest : public nk::test::StoreTest {
protected:
    IdentityTest() : StoreTest("2000") {}
    void SetUp() override {
        StoreTest::SetUp();
        inbox_.emplace("listener",
                       std::vector<const char*>{"permanent_device_id", "clear_device_id_cache"});
    }

    std::optional<nk::test::Peer> inbox_;
};

TEST_F(IdentityTest, TemporaryIdsArePaddedStablePerMacAndYieldToKnownDevices) {
    const macaddr first = nth_mac(1);
    g_user_agent_cache.add(first, nk::AdditionalInfo<std::string>{"agent"});
    const std::string id = get_device_id(first);
    EXPECT_EQ(id, "00000000-0000-0000-0000-000000000001");
    EXPECT_TRUE(is_temporary(id));
    EXPECT_EQ(g_user_agent_cache.count(first), 0u) << "info from before the id is resent";

    EXPECT_EQ(get_device_id(first), id);
    EXPECT_EQ(get_device_id(nth_mac(2)), temporary_id(2)) << "a repeat must not use a number";

    Device known("", first, {}, "");
    known.cloud.device_id = "d-1";
    g_devices.push_back(known);
    EXPECT_EQ(get_device_id(first), "d-1");
}

TEST_F(IdentityTest, NumberingRestartsPastTheMaximumAndListenersAreTold) {
    nk::log::set_level(nk::log::ERROR);
    constexpr int kMax = 4095;  // 2^12 - 1 for twelve digits
    for (int n = 1; n <= kMax; ++n)
        ASSERT_EQ(get_device_id(nth_mac(n)), temporary_id(n));
    EXPECT_FALSE(inbox_->first("clear_device_id_cache"));

    EXPECT_EQ(get_device_id(nth_mac(kMax + 1)), temporary_id(1));
    EXPECT_EQ(inbox_->first("clear_device_id_cache", 5s), "");
    EXPECT_EQ(g_temporary_device_ids.size(), 1u);
    EXPECT_EQ(get_device_id(nth_mac(1)), temporary_id(2)) << "old ids were forgotten";
}

// Whoever hears that a temporary id became a cloud id must find that device stored.
TEST_F(IdentityTest, AConfirmedMacIsAnnouncedOnlyOnceItsDeviceIsStoredAndUnlocked) {
    const macaddr mac = nth_mac(5);
    const std::string temporary = get_device_id(mac);
    Device device;
    device.cloud.device_id = "cloud-9";
    const nk::json_ptr macs(json_pack("[s]", mac.to_string().c_str()));

    ASSERT_TRUE(device.lock_device_key());
    ASSERT_TRUE(device.update_macs_from_cloud(macs.get()));
    // Events of one sender arrive in order: once this one is in, an earlier one would be too.
    send_clear_device_id_cache_message();
    ASSERT_TRUE(inbox_->first("clear_device_id_cache", 5s));
    EXPECT_FALSE(inbox_->first("permanent_device_id"));
    EXPECT_TRUE(load_device_from_storage("cloud-9"));

    device.unlock_device_key();
    EXPECT_EQ(inbox_->first("permanent_device_id", 5s),
              R"({"temp_device_id": ")" + temporary + R"(", "cloud_device_id": "cloud-9"})");
    EXPECT_EQ(g_temporary_device_ids.count(mac_key(mac)), 0u);
}

}  // namespace

namespace {

class IgnoredMacsTest : public nk::test::SettingsTest {
protected:
    const std::string key_{nk::kDiscoveryIgnoredMacsKey};
};

TEST_F(IgnoredMacsTest, EveryListIsSplitAtCommasIntoOneSet) {
    ASSERT_EQ(nk::setMgmt::setKey(key_ + "/lan", "aa:00:00:00:00:01,aa:00:00:00:00:02,"), 0);
    ASSERT_EQ(nk::setMgmt::setKey(key_ + "/wifi", "aa:00:00:00:00:02"), 0);
    const std::unordered_set<std::string> expected = {"aa:00:00:00:00:01", "aa:00:00:00:00:02", ""};
    EXPECT_EQ(discovery_ignored_macs(), expected);
    EXPECT_EQ(nk::setMgmt::unlockKey(key_), 0) << "the read leaves the key locked";
}

// Read with every lease snapshot: a box without a list must not log an error each time.
TEST_F(IgnoredMacsTest, AbsentListIsEmptyAndQuiet) {
    nk::test::StderrCapture capture;
    EXPECT_TRUE(discovery_ignored_macs().empty());
    EXPECT_EQ(capture.text().find("enumSubkeys failed"), std::string::npos);
}

TEST(PendingDevices, OnePerLocalIdNamedByTheLeasesAndNoneInLeasesMode) {
    const macaddr mac("aa:00:00:00:00:05");
    const address ip("192.168.1.5");
    g_nkleases_mode = 1;
    save_pending_device("t-1", mac, ip);
    EXPECT_TRUE(g_pending_devices.empty());

    g_nkleases_mode = 0;
    g_hostnames[macaddr("aa:00:00:00:00:07")] = "laptop";
    save_pending_device("t-1", mac, ip);
    save_pending_device("t-1", macaddr("aa:00:00:00:00:06"), ip);
    save_pending_device("t-2", macaddr("aa:00:00:00:00:07"), ip);
    ASSERT_EQ(g_pending_devices.size(), 2u);
    const Device& device = g_pending_devices[0];
    EXPECT_EQ(device.local.device_id, "t-1");
    EXPECT_EQ(device.cloud.macs.count(mac_key(mac)), 1u);
    EXPECT_EQ(device.local.macips.get_ips(mac, true), nk::ip_set{ip});
    EXPECT_EQ(device.cloud.box_detected_name, "*") << "no host name known";
    EXPECT_EQ(g_pending_devices[1].cloud.box_detected_name, "laptop");
}

TEST(StrRtrim, TrailingWhiteSpaceOnly) {
    for (const nk::test::Row& row : nk::test::rows("rtrim")) {
        std::string buffer = row.str("in");
        SCOPED_TRACE(buffer);
        buffer.push_back('\0');
        EXPECT_EQ(str_rtrim(buffer.data()) != 0, row.flag("last_was_space"));
        EXPECT_EQ(buffer.c_str(), row.str("out"));
    }
}

}  // namespace
