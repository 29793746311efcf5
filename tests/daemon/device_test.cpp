// The device record: lookups over the inventory, equality, the key lock with its deferred
// actions, and the purge of connect_device attempts.
#include "device.h"

#include <sys/wait.h>

#include <nk/constants.h>

#include "daemon_fixture.h"
#include "daemon_state.h"
#include "stderr_capture.h"

namespace {

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
