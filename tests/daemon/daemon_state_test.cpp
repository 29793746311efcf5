// Tunables read from a real settings store, and feature flags following the store.
#include "daemon_state.h"

#include <nk/featureutl.h>

#include "daemon_fixture.h"

namespace {

class DaemonStateTest : public nk::test::SettingsTest {
protected:
    void SetUp() override {
        SettingsTest::SetUp();
        ASSERT_EQ(nk::featureutl::init(), 0);
    }
    void TearDown() override {
        uninit_globals();
        nk::featureutl::uninit();
        SettingsTest::TearDown();
    }
    void set(const std::string& key, const std::string& value) {
        ASSERT_EQ(nk::setMgmt::setKey(key, value), 0);
    }
};

TEST_F(DaemonStateTest, StoreValuesOverrideDefaults) {
    for (const nk::test::Row& row : nk::test::rows("tunables"))
        set(row.str("key"), row.str("value"));
    ASSERT_TRUE(init_globals());
    EXPECT_EQ(g_retry_interval["default"], 7);
    EXPECT_EQ(g_retry_interval["update_box_detected_name"], 90);
    EXPECT_EQ(g_retry_interval["subprocess_respawn_retries"], 2);
    EXPECT_EQ(g_avahi_max_cache_size, 3);
    EXPECT_EQ(g_sync_poll_interval, 15);
    EXPECT_EQ(g_device_id, "box-1");
    EXPECT_FALSE(g_feature_additional_info);
    EXPECT_TRUE(g_feature_onbox_status);
    ASSERT_TRUE(g_device_info_sync_timer.has_value());
    EXPECT_GE(g_device_info_sync_timer->fd(), 0);
}

TEST_F(DaemonStateTest, AddDeviceToCloudIsTheLongerNeighbourExpiry) {
    for (const nk::test::Row& c : nk::test::rows("neighbour_expiry")) {
        SCOPED_TRACE(c.text());
        nk::setMgmt::deleteKey("/daemons");
        if (c.get("v4"))
            set(g_neigh_expiry_time_key, c.str("v4"));
        if (c.get("v6"))
            set(g_neigh_expiry_time_v6_key, c.str("v6"));
        ASSERT_TRUE(init_globals());
        EXPECT_EQ(g_retry_interval["add_device_to_cloud"], c.num("expected"));
    }
}

TEST_F(DaemonStateTest, FeatureChangeFlipsOnlyItsFlag) {
    ASSERT_TRUE(init_globals());
    set("/features/ids/1", "1");
    handle_feature_change(1);
    EXPECT_FALSE(g_feature_onbox_status);
    EXPECT_TRUE(g_feature_additional_info);
    set("/features/ids/1", "0");
    set("/features/ids/7", "1");
    handle_feature_change(1);
    handle_feature_change(7);
    EXPECT_TRUE(g_feature_onbox_status);
    EXPECT_TRUE(g_feature_additional_info);
}

}  // namespace
