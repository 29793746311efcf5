// The real daemon binary against a private broker, settings store and device table.
#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <sstream>

#include <nk/devmgmt.h>
#include <nk/io.h>
#include <nk/json.h>
#include <nk/setmgmt.h>

#include "bus_peer.h"
#include "emulated_cloud.h"
#include "scripted_cloud.h"
#include "test_broker.h"
#include "test_data.h"
#include "wait.h"

namespace {

using namespace std::chrono_literals;
using nk::test::DaemonProcess;

class DaemonRunTest : public ::testing::Test {
protected:
    void SetUp() override {
        // The store exists before anything is set in it, as on a box.
        ASSERT_TRUE(::mkdir(settings_.c_str(), 0755) == 0 || errno == EEXIST);
        ASSERT_TRUE(broker_.start());
    }

    std::vector<std::string> args(const std::string& settings) const {
        return {NK_DAEMON_BIN,    "-f",       "--settings",      settings,      "--devmgmt",
                dir_ / "devmgmt", "--broker", broker_.address(), "--log-level", "4"};
    }
    bool start() { return daemon_.start(args(settings_)); }
    int nkset(const std::string& command) {
        return nk::test::run_command(std::string(NK_NKSET_BIN) + " --settings " + settings_ + " " +
                                     command);
    }

    // A WAN role and a BOX id are all it takes for the daemon to go on to load its devices.
    void give_wan() {
        ASSERT_EQ(nkset("set /network/interfaces/roles/wan0 wan"), 0);
        ASSERT_EQ(nkset("set /daemons/nkcloudd/device_id box-1"), 0);
    }

    nk::test::TempDir dir_;
    std::string settings_ = dir_ / "settings";
    nk::test::TestBroker broker_{dir_.path()};
    nk::test::ScopedEnv libexec_{"NK_LIBEXEC_DIR", dir_.path()};
    DaemonProcess daemon_;
};

// A signal ends it within a second, idle or while a request to a silent cloud is pending.
TEST_F(DaemonRunTest, ExitsCleanlyOnSignal) {
    nk::test::ScopedEnv timeout("NKEX_TIMEOUT_MS", "30000");
    for (const auto& [sig, loading] : {std::pair{SIGINT, false}, {SIGTERM, true}}) {
        if (loading)
            give_wan();
        DaemonProcess daemon;
        ASSERT_TRUE(daemon.start(args(settings_)));
        ASSERT_TRUE(daemon.wait_for_line(loading ? "loading devices from cloud" : "disco ready"));
        EXPECT_EQ(daemon.stop(sig, 1s), 0) << "signal " << sig;
        EXPECT_EQ(daemon.count_lines("exiting"), 1);
    }
}

// The rows: data/startup_failures.jsonl; a second daemon on the same store among them.
TEST_F(DaemonRunTest, StartUpFailuresExitWithStatusOne) {
    std::ofstream(dir_ / "file") << "x";
    for (const nk::test::Row& c : nk::test::rows("startup_failures")) {
        std::string line = c.str("line");
        SCOPED_TRACE(line);
        if (!c.str("setting").empty()) {
            ASSERT_EQ(nkset(c.str("setting")), 0);
        }
        if (c.flag("no_broker"))
            broker_.stop();
        if (c.flag("second")) {
            ASSERT_TRUE(start());
            ASSERT_TRUE(daemon_.wait_for_line("disco ready"));
            line.replace(line.find("$PID"), 4, std::to_string(daemon_.pid()));
        }
        DaemonProcess daemon;
        ASSERT_TRUE(daemon.start(args(c.flag("below_file") ? dir_ / "file/settings" : settings_)));
        EXPECT_EQ(daemon.wait_exit(), 1);
        EXPECT_EQ(daemon.count_lines(line), 1);
        EXPECT_EQ(daemon.count_lines("disco ready"), 0);
        if (c.flag("second")) {
            EXPECT_EQ(daemon_.stop(SIGTERM), 0);
        }
    }
}

TEST_F(DaemonRunTest, EverySubscribedEventReachesTheDispatcher) {
    ASSERT_TRUE(start());
    ASSERT_TRUE(daemon_.wait_for_line("disco ready"));
    nk::test::ScopedEnv broker_env("NKEX_BROKER", broker_.address());
    nkex_handle* client = nkex_init("tester", nullptr, nullptr, 1);
    ASSERT_NE(client, nullptr);
    for (const char* name : {"devmgmt:device_inventory", "sifter_user_agent", "sifter_dhcp_payload",
                             "request_device_id", "device_not_found"}) {
        const std::string seen = std::string("nkex message: name=") + name + ",";
        // The subscription may still be on its way: send until the daemon has seen one.
        bool delivered = false;
        for (int i = 0; i < 25 && !delivered; ++i) {
            ASSERT_EQ(nkex_send_message(client, name, "{}", 2), 0);
            delivered = daemon_.wait_for_line(seen, 200ms);
        }
        EXPECT_TRUE(delivered) << name;
    }
    nkex_uninit(client);
    EXPECT_EQ(daemon_.count_lines("unhandled nkex message"), 0);
    EXPECT_EQ(daemon_.stop(SIGTERM), 0);
}

TEST_F(DaemonRunTest, LoadsEveryTwoSecondsUntilLoadedAndNeverStartsACollectorWithoutLan) {
    give_wan();
    // The collector would be restarted at every active turn, were there a LAN to watch.
    ASSERT_EQ(nkset("set /daemons/nkdevicediscovery/subprocess_respawn_frequency 0"), 0);
    const nk::test::ScopedEnv broker_env("NKEX_BROKER", broker_.address());
    nk::test::ScriptedCloud cloud;
    cloud.set("list_devices_v2", "", 3);
    ASSERT_TRUE(cloud.connect());
    ASSERT_TRUE(start());
    ASSERT_TRUE(nk::test::wait_until([&] { return cloud.sent_at().size() >= 3; }, 8s));
    const auto at = cloud.sent_at();
    for (std::size_t i = 1; i < at.size(); ++i) {
        EXPECT_GT(at[i] - at[i - 1], 1500ms) << i;
        EXPECT_LT(at[i] - at[i - 1], 3000ms) << i;
    }

    cloud.set("list_devices_v2", R"({"result": {"page": 0, "count": 0, "devices": []}})");
    ASSERT_TRUE(daemon_.wait_for_line("Devices loaded and synced!", 5s));
    // A change of feature is served by the loop on a later, active turn.
    ASSERT_EQ(nkset("set /features/ids/0 1"), 0);
    ASSERT_TRUE(daemon_.wait_for_line("Feature 0 changed to 1"));
    EXPECT_EQ(daemon_.count_lines("Restarting"), 0);
    EXPECT_EQ(daemon_.count_lines("Started subprocess"), 0);
    EXPECT_EQ(daemon_.stop(SIGTERM), 0);
}

// A BOX of its own: the settings store and the device table on small tmpfs mounts in this
// test's mount namespace, so they can be filled and emptied; a LAN interface in its network
// namespace with the real collector reading a lease file. Both vanish with the process.
class DegradedStoreTest : public DaemonRunTest {
protected:
    static constexpr int kListed = 25;

    void SetUp() override {
        if (::geteuid() != 0)
            GTEST_SKIP() << "mounting small stores and making a LAN interface needs root";
        ASSERT_EQ(::unshare(CLONE_NEWNS | CLONE_NEWNET), 0) << std::strerror(errno);
        ASSERT_EQ(::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0);
        for (const std::string& dir : {settings_, devmgmt_}) {
            ASSERT_EQ(::mkdir(dir.c_str(), 0755), 0);
            ASSERT_EQ(::mount("tmpfs", dir.c_str(), "tmpfs", 0, "size=512k"), 0);
            mounted_.push_back(dir);
        }
        ASSERT_EQ(nk::test::run_command("ip link add lan0 type veth peer name lan1 && "
                                        "ip addr add 198.51.100.1/24 dev lan0 && "
                                        "ip link set lan0 up && ip link set lan1 up"),
                  0);
        DaemonRunTest::SetUp();
        ASSERT_EQ(nkset("set /network/interfaces/roles/wan0 wan"), 0);
        ASSERT_EQ(nkset("set /network/interfaces/roles/lan0 lan"), 0);
        ASSERT_EQ(nkset("set /network/dhcp/leases_mode 0"), 0);
        ASSERT_EQ(nkset("set /network/dhcp/lease_files " + leases_), 0);
        ASSERT_EQ(nkset("set /features/ids/0 1"), 0);  // no scanning of the LAN
    }
    void TearDown() override {
        daemon_.stop(SIGTERM);
        for (const std::string& dir : mounted_)
            ::umount2(dir.c_str(), MNT_DETACH);
    }

    // The cloud lists kListed devices; the lease file has them and one client it does not know.
    void make_lan() {
        std::ofstream leases(leases_);
        for (int i = 0; i <= kListed; ++i) {
            const std::string mac = fmt::format("02:00:00:00:01:{:02x}", i);
            if (i < kListed)
                ids_[mac] = cloud_.emu("add " + mac);
            leases << fmt::format("{} {} 198.51.100.{} host{} *\n", ::time(nullptr) + 3600, mac,
                                  10 + i, i);
        }
        ASSERT_TRUE(cloud_.start());
    }
    void fill(const std::string& dir) {
        const nk::io::unique_fd fd(
            ::open((dir + "/filler").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
        ASSERT_TRUE(fd);
        const std::string block(4096, 'x');
        while (::write(fd.get(), block.data(), block.size()) > 0) {
        }
        ASSERT_EQ(errno, ENOSPC);
    }

    // The id the cloud registered a MAC under; empty when it has none.
    std::string cloud_id_of(const std::string& mac) {
        std::istringstream lines(cloud_.run("list"));
        for (std::string line; std::getline(lines, line);) {
            const nk::json_ptr device(json_loads(line.c_str(), 0, nullptr));
            const json_t* macs = json_object_get(device.get(), "macs");
            for (std::size_t i = 0; i < json_array_size(macs); ++i) {
                if (mac == json_string_value(json_array_get(macs, i)))
                    return nk::json_string_member(device.get(), "device_id");
            }
        }
        return "";
    }

    // The daemon's answer to request_device_id, as another daemon gets it.
    std::string ask(const std::string& mac, const std::string& ip) {
        const nk::test::Peer asker("asker");
        const auto answer = nk::test::ask(asker.handle(), "request_device_id",
                                          fmt::format(R"({{"mac":"{}","ip":"{}"}})", mac, ip));
        const nk::json_ptr json(answer ? json_loads(answer->second.c_str(), 0, nullptr) : nullptr);
        const char* id = nk::json_string_member(json.get(), "device_id");
        return id ? id : "no answer";
    }

    // The devices of ids_ stored whole: a marker and a record in the table.
    void expect_stored() {
        for (const auto& [mac, id] : ids_) {
            nk::devMgmt::Device record;
            record.device_id = id;
            const std::string marker = nk::setMgmt::getKeyValue("/devices/" + id, "absent");
            const bool in_table = record.load_from_shmem(false, true);
            // A registration's marker is "0" until the device's next write.
            EXPECT_TRUE(marker != "absent" && in_table) << mac << " " << id << ": " << marker;
        }
        nk::devMgmt::close_table();
    }

    std::vector<std::string> mounted_;
    const std::string devmgmt_ = dir_ / "devmgmt";
    const std::string leases_ = dir_ / "dnsmasq.leases";
    std::map<std::string, std::string> ids_;  // MAC to the cloud's device id
    nk::test::ScopedEnv broker_env_{"NKEX_BROKER", broker_.address()};
    nk::test::ScopedEnv settings_env_{"NK_SETTINGS_DIR", settings_};
    nk::test::ScopedEnv devmgmt_env_{"NK_DEVMGMT_DIR", devmgmt_};
    nk::test::ScopedEnv collector_env_{"NK_LIBEXEC_DIR", NK_COLLECTOR_DIR};
    nk::test::EmulatedCloud cloud_{dir_ / "cloud.db"};
};

struct FullStores {
    const char* name;
    bool settings;
    bool table;
};

class FullStoreTest : public DegradedStoreTest, public ::testing::WithParamInterface<FullStores> {};

// A full store or table never stops the answers, the registrations or the load; once room
// returns, every device is stored.
TEST_P(FullStoreTest, DelaysStorageOnly) {
    make_lan();
    // The table exists before it fills up, as on a box that ran before.
    nk::devMgmt::Device first;
    first.device_id = "first";
    ASSERT_TRUE(first.write_to_shmem() && first.delete_shmem());
    nk::devMgmt::close_table();
    if (GetParam().settings)
        fill(settings_);
    if (GetParam().table)
        fill(devmgmt_);

    ASSERT_TRUE(start());
    ASSERT_TRUE(daemon_.wait_for_line("Devices loaded; storage behind", 10s));
    const auto& [mac, id] = *ids_.begin();
    EXPECT_EQ(ask(mac, "198.51.100.10"), id);
    // The client the cloud did not know is registered all the same.
    ASSERT_TRUE(nk::test::wait_until(
        [&] { return !cloud_id_of(fmt::format("02:00:00:00:01:{:02x}", kListed)).empty(); }, 10s));
    EXPECT_EQ(daemon_.count_lines("Devices loaded and synced!"), 0);

    for (const std::string& dir : {settings_, devmgmt_})
        ::unlink((dir + "/filler").c_str());
    ASSERT_TRUE(daemon_.wait_for_line("devices stored after", 70s));
    EXPECT_EQ(daemon_.count_lines("Storage failing"), 1);
    expect_stored();
}

INSTANTIATE_TEST_SUITE_P(Stores, FullStoreTest,
                         ::testing::Values(FullStores{"settings", true, false},
                                           FullStores{"table", false, true},
                                           FullStores{"both", true, true}),
                         [](const auto& info) { return std::string(info.param.name); });

// A store made read-only while the daemon runs: a client that joins meanwhile is registered
// and answered, a device the cloud removes leaves the inventory; once the store is writable
// again both reach it.
TEST_F(DegradedStoreTest, AStoreMadeReadOnlyCatchesUpOnceWritable) {
    make_lan();
    ASSERT_TRUE(start());
    ASSERT_TRUE(daemon_.wait_for_line("Devices loaded and synced!", 10s));
    // A read-only view over it: the daemon's open lock files would keep a remount busy.
    ASSERT_EQ(::mount(settings_.c_str(), settings_.c_str(), nullptr, MS_BIND, nullptr), 0);
    ASSERT_EQ(
        ::mount(nullptr, settings_.c_str(), nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr), 0)
        << std::strerror(errno);
    const auto [removed_mac, removed] = *ids_.begin();
    ids_.erase(removed_mac);
    cloud_.emu("remove " + removed);
    std::ofstream(leases_, std::ios::app)
        << fmt::format("{} 02:00:00:00:02:01 198.51.100.60 joiner *\n", ::time(nullptr) + 3600);
    ASSERT_TRUE(daemon_.wait_for_line("Storage failing", 10s));
    EXPECT_FALSE(ask("02:00:00:00:02:01", "198.51.100.60").empty());
    ASSERT_TRUE(nk::test::wait_until([&] { return !cloud_id_of("02:00:00:00:02:01").empty(); }));
    ASSERT_TRUE(daemon_.wait_for_line("removing device from storage: " + removed, 10s));

    ASSERT_EQ(::umount2(settings_.c_str(), MNT_DETACH), 0);
    ASSERT_TRUE(daemon_.wait_for_line("devices stored after", 70s));
    ids_["02:00:00:00:02:01"] = cloud_id_of("02:00:00:00:02:01");
    expect_stored();
    EXPECT_EQ(nk::setMgmt::getKeyValue("/devices/" + removed, "absent"), "absent");
}

// A restarted daemon answers from the stored inventory while the cloud is silent, and the
// collector it stopped itself while loading starts again at once, not after a respawn pause.
TEST_F(DegradedStoreTest, ARestartedDaemonAnswersKnownDevicesAtOnce) {
    make_lan();
    const auto& [mac, id] = *ids_.begin();
    for (const bool silent : {false, true}) {
        SCOPED_TRACE(silent ? "silent cloud" : "first start");
        if (silent)
            ::kill(cloud_.process.pid(), SIGSTOP);
        ASSERT_TRUE(start());
        ASSERT_TRUE(daemon_.wait_for_line("disco ready"));
        const auto asked = std::chrono::steady_clock::now();
        EXPECT_EQ(ask(mac, "198.51.100.10"), id);
        EXPECT_LT(std::chrono::steady_clock::now() - asked, 2s);
        if (silent)
            ::kill(cloud_.process.pid(), SIGCONT);
        ASSERT_TRUE(daemon_.wait_for_line("Devices loaded and synced!", 10s));
        EXPECT_TRUE(daemon_.wait_for_line("Restarting", 3s));
        ASSERT_EQ(daemon_.stop(SIGTERM), 0);
    }
}

}  // namespace
