// Device ids handed to other daemons: temporary ids and their announcements on a real broker.

#include <nk/log.h>

#include "daemon_fixture.h"
#include "daemon_state.h"
#include "device_identity.h"
#include "device_storage.h"
#include "stderr_capture.h"
#include "temp_dir.h"
#include "test_broker.h"
#include "wait.h"

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
        ASSERT_TRUE(inbox_.listen("listener", {"permanent_device_id", "clear_device_id_cache"}));
    }

    nk::test::Inbox inbox_;
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
    EXPECT_FALSE(inbox_.find("clear_device_id_cache"));

    EXPECT_EQ(get_device_id(nth_mac(kMax + 1)), temporary_id(1));
    ASSERT_TRUE(
        nk::test::wait_until([&] { return inbox_.find("clear_device_id_cache").has_value(); }));
    EXPECT_EQ(inbox_.find("clear_device_id_cache"), "");
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
    ASSERT_TRUE(
        nk::test::wait_until([&] { return inbox_.find("clear_device_id_cache").has_value(); }));
    EXPECT_FALSE(inbox_.find("permanent_device_id"));
    EXPECT_TRUE(load_device_from_storage("cloud-9"));

    device.unlock_device_key();
    ASSERT_TRUE(
        nk::test::wait_until([&] { return inbox_.find("permanent_device_id").has_value(); }));
    EXPECT_EQ(inbox_.find("permanent_device_id"),
              R"({"temp_device_id": ")" + temporary + R"(", "cloud_device_id": "cloud-9"})");
    EXPECT_EQ(g_temporary_device_ids.count(mac_key(mac)), 0u);
}

}  // namespace
