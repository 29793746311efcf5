// Ignored MACs from a real settings store, pending devices, host names, user agents, trimming.

#include <cstring>
#include <unordered_set>

#include <nk/constants.h>

#include "daemon_fixture.h"
#include "daemon_state.h"
#include "host_names.h"
#include "ignored_macs.h"
#include "pending_devices.h"
#include "stderr_capture.h"
#include "temp_dir.h"

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
    for (const nk::json_ptr& row : nk::test::rows("rtrim")) {
        std::string buffer = nk::test::str(row.get(), "in");
        SCOPED_TRACE(buffer);
        buffer.push_back('\0');
        EXPECT_EQ(str_rtrim(buffer.data()) != 0, nk::test::flag(row.get(), "last_was_space"));
        EXPECT_EQ(buffer.c_str(), nk::test::str(row.get(), "out"));
    }
}

}  // namespace
