// Devices stored as a marker in a real settings store and a record in a real device table.
#include "device_storage.h"

#include "daemon_fixture.h"

namespace {

using nk::test::ScopedEnv;

const macaddr kMac("02:00:00:00:00:01");

class StorageTest : public nk::test::SettingsTest {
protected:
    static Device stored(const std::string& id) {
        Device d("local", kMac, {address("10.0.0.9"), address("10.0.0.1"), address("fe80::1")},
                 "host");
        d.cloud.device_id = id;
        return d;
    }
};

TEST_F(StorageTest, RoundTripKeepsWhatTheRecordCarriesAndDropsTheRest) {
    Device d = stored("dev-1");
    CloudData& c = d.cloud;
    int n = 0;  // distinct values, so that two swapped fields show
    for (std::string CloudData::*const s :
         {&CloudData::device_os, &CloudData::device_os_version, &CloudData::device_type,
          &CloudData::mac_vendor, &CloudData::device_model, &CloudData::profile_id,
          &CloudData::display_name, &CloudData::friendly_name, &CloudData::box_device_id,
          &CloudData::device_detection_name})
        c.*s = "value " + std::to_string(++n);
    for (int CloudData::*const i :
         {&CloudData::blocked, &CloudData::onguest, &CloudData::scan_level,
          &CloudData::va_scan_level, &CloudData::upnp_enabled, &CloudData::onbox})
        c.*i = ++n;
    c.apps = {{"app1", 1}, {"app2", 0}};
    c.box_detected_name_history = {"old \"name\"", "older"};
    c.macips.add_mac(kMac);
    c.created = (std::int64_t{1} << 40) + 7;
    d.local.macips.add_mac(macaddr("02:00:00:00:00:02"));  // no addresses, still carried
    d.local.onbox_info = OnboxInfo{1, true, 42};
    d.local.avahi_info.current.insert(nk::avahi::AvahiInfo{"svc", "h", "t", 1});

    ASSERT_TRUE(write_device_to_storage(d, false));
    EXPECT_EQ(nk::test::marker("dev-1"), "0");
    const std::optional<Device> back = load_device_from_storage("dev-1");
    ASSERT_TRUE(back);

    CloudData expected = c;
    expected.macs.clear();
    expected.device_detection_name.clear();
    expected.onbox = 0;
    expected.macips = nk::macips_t();
    EXPECT_EQ(back->cloud, expected);
    EXPECT_EQ(back->local.device_id, "local");
    EXPECT_EQ(back->local.macips, d.local.macips);
    EXPECT_EQ(back->local.onbox_info.onbox, 1);
    EXPECT_FALSE(back->local.onbox_info.to_send);
    EXPECT_EQ(back->local.onbox_info.sent_at, 0);
    EXPECT_TRUE(back->local.avahi_info.current.empty());
    // An unchanged device gives an unchanged record, whatever order its addresses hash in.
    EXPECT_EQ(back->to_devmgmt_device(), d.to_devmgmt_device());
}

TEST_F(StorageTest, FailuresLeaveStoreAndTableConsistent) {
    std::vector<Device> out(1);
    EXPECT_TRUE(load_devices_from_storage(out));  // nothing ever stored
    EXPECT_EQ(out.size(), 1u);

    const ScopedEnv small(nk::devMgmt::kDevmgmtMapSizeEnv, "262144");
    Device big = stored("big");
    big.cloud.display_name.assign(1 << 20, 'n');
    EXPECT_FALSE(write_device_to_storage(big, true));
    EXPECT_EQ(nk::test::marker("big"), "absent");

    ASSERT_TRUE(write_device_to_storage(stored("b"), true));
    ASSERT_TRUE(write_device_to_storage(stored("c"), true));
    ASSERT_EQ(nk::setMgmt::setKey("/devices/a", "1"), 0);  // a marker without a record
    ASSERT_EQ(nk::setMgmt::deleteKey("/devices/c"), 0);
    remove_device_from_storage(stored("c"));
    ASSERT_EQ(nk::setMgmt::setKey("/devices/c", "1"), 0);  // the record must be gone too

    EXPECT_TRUE(load_devices_from_storage(out));
    ASSERT_EQ(out.size(), 2u);
    EXPECT_EQ(out[1].cloud.device_id, "b");
    EXPECT_TRUE(out[1].cloud.macs.empty());
}

// A pass's markers reach the store together when it ends, each with its last value; one the
// pass removed is not revived. The records are in the table at once.
TEST_F(StorageTest, DeferredMarkersAreWrittenWhenThePassEnds) {
    ASSERT_TRUE(write_device_to_storage(stored("gone"), true));
    {
        const DeferredMarkers pass;
        ASSERT_TRUE(write_device_to_storage(stored("a"), false));
        ASSERT_TRUE(write_device_to_storage(stored("a"), true));
        ASSERT_TRUE(write_device_to_storage(stored("gone"), true));
        remove_device_from_storage(stored("gone"));
        EXPECT_EQ(nk::test::marker("a"), "absent");
        EXPECT_TRUE(load_device_from_storage("a"));
    }
    EXPECT_EQ(nk::test::marker("a"), "1");
    EXPECT_EQ(nk::test::marker("gone"), "absent");
    EXPECT_FALSE(load_device_from_storage("gone"));
}

}  // namespace
