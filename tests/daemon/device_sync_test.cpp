// The device list loaded from the cloud, reconciled with storage, and fields refreshed: against
// the cloud emulator, and a scripted connector for answers the emulator never gives.
#include "device_storage.h"

#include <sys/stat.h>

#include <filesystem>
#include <set>
#include <tuple>

#include <fmt/ranges.h>

#include "cloud_request.h"
#include "daemon_fixture.h"
#include "daemon_process.h"
#include "daemon_state.h"
#include "device_sync.h"
#include "emulated_cloud.h"
#include "stderr_capture.h"

namespace {

std::string mac_text(int n) {
    return fmt::format("02:00:00:00:00:{:02x}", n);
}

// Bus answers take their time under the sanitizers when 256 pages come in a row.
class DeviceSyncTest : public nk::test::StoreTest {
protected:
    DeviceSyncTest() : StoreTest("1000") {}
};

std::string page(int number, int devices) {
    std::string list;
    for (int i = 0; i < devices; ++i)
        list += fmt::format(R"({}{{"device_id": "d{}-{}"}})", i ? ", " : "", number, i);
    return fmt::format(R"({{"result": {{"page": {}, "count": 45, "devices": [{}]}}}})", number,
                       list);
}

// Answers each request with the next text of answers_ (the last one again when they run out);
// with none, every page asked for comes back full.
class ScriptedCloudTest : public DeviceSyncTest {
protected:
    void SetUp() override {
        DeviceSyncTest::SetUp();
        ASSERT_TRUE(cloud_.connect());
        cloud_.script = [this](const std::string& body, std::size_t n) {
            n -= first_;
            if (!answers_.empty())
                return answers_.at(std::min(n, answers_.size() - 1));
            const nk::json_ptr request(json_loads(body.c_str(), 0, nullptr));
            return page(
                static_cast<int>(json_integer_value(json_object_get(request.get(), "page"))), 20);
        };
    }
    std::size_t requests() { return cloud_.sent().size() - first_; }

    nk::test::ScriptedCloud cloud_;
    std::vector<std::string> answers_;
    std::size_t first_ = 0;
};

// [n, k] in a row of data/device_pages.jsonl is page n with k devices.
TEST_F(ScriptedCloudTest, AnswersOutsideTheProtocolEndTheLoad) {
    for (const nk::test::Row& c : nk::test::rows("device_pages")) {
        SCOPED_TRACE(c.str("line"));
        answers_.clear();
        std::size_t i = 0;
        const json_t* a = nullptr;
        json_array_foreach(c.get("answers"), i, a) {
            answers_.push_back(
                json_is_array(a) ? page(static_cast<int>(json_integer_value(json_array_get(a, 0))),
                                        static_cast<int>(json_integer_value(json_array_get(a, 1))))
                                 : nk::json_dump_compact(a));
        }
        first_ = cloud_.sent().size();
        nk::test::StderrCapture capture;
        EXPECT_EQ(load_devices_from_cloud(), c.flag("loaded"));
        EXPECT_NE(capture.text().find(c.str("line")), std::string::npos);
        EXPECT_EQ(g_devices.size(), static_cast<std::size_t>(c.num("devices")));
        EXPECT_EQ(requests(), static_cast<std::size_t>(c.num("requests")));
    }
}

class EmulatedCloudTest : public DeviceSyncTest {
protected:
    void SetUp() override {
        DeviceSyncTest::SetUp();
        ASSERT_TRUE(cloud_.start());
        g_device_id = nk::setMgmt::getKeyValue("/daemons/nkcloudd/device_id", "");
    }

    std::string emu(const std::string& args) { return cloud_.emu(args); }
    int requests_seen(const std::string& command) {
        return cloud_.requests_seen(command, nk::test::send_probe);
    }

    // This BOX reports the device onbox, with one address listed and another given alone.
    void set_onbox(const std::string& id, const std::string& mac) {
        const nk::json_ptr body(json_pack(
            "{s:{s:s}, s:i, s:{s:{s:[s]}}, s:s}", "connect_destination", "device_id", id.c_str(),
            "onbox", 1, "ip_list", mac.c_str(), "ipv4", "192.168.1.10", "ip", "192.168.1.99"));
        nk::json_ptr answer;
        ASSERT_TRUE(cloud_request(kCloudSetDeviceOnbox, body.get(), &answer));
    }

    // What the daemon does at start: the cloud's list, reconciled with what storage holds.
    static void reload() {
        std::vector<Device> stored;
        ASSERT_TRUE(load_devices_from_cloud());
        ASSERT_TRUE(load_devices_from_storage(stored));
        sync_devices_to_storage(stored);
    }

    nk::test::EmulatedCloud cloud_{dir_ / "cloud.db"};
};

TEST_F(EmulatedCloudTest, EveryPageIsFetchedOnceAndEveryDeviceLoaded) {
    int total = 0;
    // The BOX itself is listed too, always: 19 devices and the BOX fill exactly one page.
    for (const auto& [devices, requests] :
         std::vector<std::pair<int, int>>{{0, 1}, {1, 1}, {19, 1}, {20, 2}, {45, 3}}) {
        while (total < devices)
            emu("add " + mac_text(++total));
        const int before = requests_seen("list_devices_v2");
        ASSERT_TRUE(load_devices_from_cloud()) << devices;
        EXPECT_EQ(requests_seen("list_devices_v2") - before, requests) << devices;
        EXPECT_EQ(g_devices.size(), static_cast<std::size_t>(devices) + 1);
        EXPECT_NE(find_device_by_dev_id(g_device_id), nullptr);
        std::set<std::string> macs;
        for (const Device& d : g_devices) {
            if (!d.cloud.macs.empty())
                macs.insert(d.cloud.macs.begin()->first);
        }
        EXPECT_EQ(macs.size(), static_cast<std::size_t>(devices));
    }
}

TEST_F(EmulatedCloudTest, SyncCarriesLocalStateOverAndDropsWhatTheCloudForgot) {
    const macaddr kept(mac_text(1)), dropped(mac_text(2)), forgotten(mac_text(3));
    const std::string managed = emu("add " + kept.to_string());
    const std::string fresh = emu("add " + mac_text(4));
    set_onbox(managed, kept.to_string());
    emu("rename " + managed + " Kitchen");
    Device old, gone;
    old.cloud.device_id = managed;
    old.local.device_id = "local-1";
    old.local.macips.add_ip(kept, address("192.168.1.10"));
    old.local.macips.add_ip(dropped, address("192.168.1.20"));
    gone.cloud.device_id = "gone";
    gone.local.macips.add_ip(forgotten, address("192.168.1.30"));
    // The BOX's record, as the topology stores it: the cloud lists no MAC of the BOX.
    Device box;
    box.cloud.device_id = g_device_id;
    const macaddr box_mac("02:00:00:00:01:01");
    box.local.macips.add_ip(box_mac, address("192.168.1.1"));
    box.local.macips.add_ip(box_mac, address("2001:db8:1::1"));
    for (const Device& d : {old, gone, box})
        ASSERT_TRUE(write_device_to_storage(d, true));
    for (const macaddr& mac : {kept, forgotten}) {
        g_user_agent_cache.add(mac, {"agent"});
        g_fingerprint_cache.add(mac, {});
    }

    reload();

    const Device* m = find_device_by_dev_id(managed);
    ASSERT_NE(m, nullptr);
    EXPECT_EQ(m->local.device_id, "local-1");
    const nk::ip_set listed{address("192.168.1.10")};
    EXPECT_EQ(m->cloud.macips.get_ips(kept, true), listed);  // "ip_list" wins over "ip"
    EXPECT_EQ(m->local.macips.get_ips(kept, true), listed);
    EXPECT_TRUE(m->local.macips.has_mac(dropped));
    EXPECT_TRUE(m->local.macips.get_ips(dropped, true).empty());
    EXPECT_EQ(m->local.onbox_info.onbox, 1);
    EXPECT_TRUE(m->local.onbox_info.to_send);  // the cloud has not seen the second MAC
    EXPECT_EQ(load_device_from_storage(managed)->cloud.friendly_name, "Kitchen");
    const Device* f = find_device_by_dev_id(fresh);
    ASSERT_NE(f, nullptr);
    EXPECT_EQ(f->local.device_id, fresh);
    EXPECT_EQ(f->local.onbox_info.onbox, 0);
    EXPECT_EQ(nk::test::marker(fresh), "1");
    EXPECT_EQ(nk::test::marker("gone"), "absent");
    EXPECT_FALSE(load_device_from_storage("gone"));
    EXPECT_EQ(g_user_agent_cache.count(forgotten) + g_fingerprint_cache.count(forgotten), 0u);
    EXPECT_EQ(g_user_agent_cache.count(kept), 1u);

    // The BOX keeps its addresses through the load and through every reload after it.
    for (int load = 0; load < 2; ++load) {
        if (load > 0)
            reload();
        const std::optional<Device> b = load_device_from_storage(g_device_id);
        ASSERT_TRUE(b) << load;
        EXPECT_EQ(b->local.macips.get_ips(box_mac, true), box.local.macips.get_ips(box_mac, true))
            << load;
    }
}

// Every file and folder of a store, with its inode and times: a write of any kind, an access
// time included, changes one of them.
using StoreTimes = std::map<std::string, std::tuple<ino_t, long long, long long, long long>>;
long long nanoseconds(const timespec& t) {
    return t.tv_sec * 1000000000LL + t.tv_nsec;
}
StoreTimes store_times(const std::string& root) {
    StoreTimes times;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(root)) {
        struct stat st {};
        EXPECT_EQ(::lstat(entry.path().c_str(), &st), 0);
        times[entry.path()] = {st.st_ino, nanoseconds(st.st_atim), nanoseconds(st.st_mtim),
                               nanoseconds(st.st_ctim)};
    }
    return times;
}

// A router's flash takes no write for a reload that changes nothing.
TEST_F(EmulatedCloudTest, AReloadOfUnchangedDevicesWritesNothingToTheStore) {
    for (int i = 1; i <= 3; ++i)
        emu("add " + mac_text(i));
    reload();
    const std::string root = dir_ / "settings";
    store_times(root);  // the listing reads the folders once, which may set their access times
    const StoreTimes before = store_times(root);
    reload();
    const StoreTimes after = store_times(root);
    std::vector<std::string> changed;
    for (const auto& [path, times] : after) {
        const auto it = before.find(path);
        if (it == before.end() || it->second != times)
            changed.push_back(path);
    }
    EXPECT_EQ(after.size(), before.size());
    EXPECT_TRUE(changed.empty()) << fmt::format("{}", fmt::join(changed, "\n"));
}

TEST_F(EmulatedCloudTest, RefreshStoresChangedFieldsAndKeepsThisBoxsOnbox) {
    const std::string id = emu("add " + mac_text(1) + " Phone");
    ASSERT_TRUE(load_devices_from_cloud());
    ASSERT_NE(find_device_by_dev_id(id), nullptr);
    Device& d = *find_device_by_dev_id(id);
    ASSERT_TRUE(write_device_to_storage(d, false));
    emu("rename " + id + " Tablet");
    ASSERT_TRUE(d.update_device_fields_from_cloud({"friendly_name"}, false));
    EXPECT_EQ(d.cloud.display_name, "Tablet");  // asked for along with any *_name
    EXPECT_EQ(nk::test::marker(id), "1");
    ASSERT_TRUE(write_device_to_storage(d, false));
    ASSERT_TRUE(d.update_device_fields_from_cloud(
        {"friendly_name", "device_os", "va_scan_level", "traffic", "apps", "onbox"}, true));
    EXPECT_EQ(nk::test::marker(id), "0") << "nothing changed, nothing written";

    set_onbox(id, mac_text(1));
    ASSERT_TRUE(d.update_device_fields_from_cloud({"box_device_id", "onbox"}, false));
    EXPECT_EQ(d.cloud.box_device_id, g_device_id);
    EXPECT_EQ(d.local.onbox_info.onbox, 0) << "this BOX's own value wins";
    g_device_id = "another-box";
    ASSERT_TRUE(d.update_device_fields_from_cloud({"onbox"}, false));
    EXPECT_EQ(d.local.onbox_info.onbox, 1);
}

TEST_F(EmulatedCloudTest, LateOrSilentCloudChangesNothingAndIsTriedAgain) {
    const std::string id = emu("add " + mac_text(1));
    emu("fault add delay=2500,command=list_devices_v2,count=1");
    EXPECT_FALSE(load_devices_from_cloud());
    ASSERT_TRUE(load_devices_from_cloud());
    ASSERT_EQ(g_devices.size(), 2u);  // with the BOX
    ASSERT_NE(find_device_by_dev_id(id), nullptr);

    Device& d = *find_device_by_dev_id(id);
    d.info_sync_pending = 1;
    d.info_sync_pending_since = 100;
    g_sync_retry_interval = 60;
    emu("rename " + id + " Tablet");
    const int before = requests_seen("get_device_info");
    g_now = 159;
    EXPECT_FALSE(sync_device_info());
    EXPECT_EQ(requests_seen("get_device_info"), before) << "not due yet";
    emu("fault add drop,command=get_device_info,count=1");
    g_now = 160;
    EXPECT_FALSE(sync_device_info());
    EXPECT_EQ(d.info_sync_pending, 1);
    EXPECT_EQ(d.cloud.friendly_name, "");
    EXPECT_TRUE(sync_device_info());
    EXPECT_EQ(d.info_sync_pending, 0);
    EXPECT_EQ(d.cloud.friendly_name, "Tablet");
}

}  // namespace
