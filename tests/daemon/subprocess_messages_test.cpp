// The collector as the daemon sees it: its restart policy, and its lease snapshots applied to
// the inventory against a real broker, settings store and device table.
#include <sys/stat.h>

#include <fstream>
#include <string>
#include <vector>

#include <nk/devmgmt.h>
#include <nk/json.h>
#include <nk/setmgmt.h>
#include <nk/util.h>

#include "daemon_fixture.h"
#include "daemon_state.h"
#include "device.h"
#include "device_identity.h"
#include "host_names.h"
#include "network_info.h"
#include "subprocess_messages.h"
#include "wait.h"

namespace {

using nk::netMgmt::Interface;

const macaddr kLaptop("00:00:5e:00:53:11");
const macaddr kVisitor("00:00:5e:00:53:14");

TEST(RestartPolicy, ACollectorThatDiesAtOnceIsStartedSixTimesThenLeftUntilTheThreshold) {
    nk::test::TempDir dir;
    const std::string collector = dir / "nkdevinfo";
    std::ofstream(collector) << "#!/bin/sh\nexit 1\n";
    ASSERT_EQ(::chmod(collector.c_str(), 0755), 0);
    nk::test::ScopedEnv libexec("NK_LIBEXEC_DIR", dir.path());
    g_retry_interval = {{"subprocess_respawn_frequency", 10}, {"subprocess_respawn_retries", 5}};
    g_subprocess = make_collector(0);
    ASSERT_TRUE(g_subprocess);
    set_lan_present(true);

    // The interface update starts it first; every later start is the policy's.
    ASSERT_TRUE(g_subprocess->start());
    int starts = 1;
    for (;;) {
        ASSERT_TRUE(nk::test::wait_until([] {
            g_subprocess->recv();
            return g_subprocess->pid() == 0;
        }));
        g_now = g_subprocess->started_at() + 9;  // too soon
        restart_subprocess();
        ASSERT_EQ(g_subprocess->pid(), 0);
        g_now += 1;
        restart_subprocess();
        if (g_subprocess->pid() == 0)
            break;
        ++starts;
    }
    EXPECT_EQ(starts, 6);
    EXPECT_EQ(g_subprocess->failures(), 6);

    // What the respawn threshold timer does; without a LAN nothing would start all the same.
    g_subprocess->set_failures(0);
    set_lan_present(false);
    restart_subprocess();
    EXPECT_EQ(g_subprocess->pid(), 0);
    set_lan_present(true);
    restart_subprocess();
    EXPECT_GT(g_subprocess->pid(), 0);
    g_subprocess->stop(true);
    g_subprocess.reset();
}

std::string leases_message(const std::string& leases, const std::string& mangled = "") {
    return R"({"type": "leases", "data": {"leases": )" + leases +
           (mangled.empty() ? "" : R"(, "mangled_macs": )" + mangled) + "}}";
}

std::string lease(const macaddr& mac, const std::string& ips, const std::string& host,
                  const std::string& iface) {
    return R"({"mac": ")" + mac.to_string() + R"(", "ips": )" + ips + R"(, "host": ")" + host +
           R"(", "iface": ")" + iface + R"("})";
}

Interface interface(const std::string& name, nk::netMgmt::InterfaceType type, bool guest,
                    const char* ip, int prefix) {
    Interface iface(name, type, guest);
    const address net(ip);
    iface.ipv4.emplace(net, *address::netmask(net.family(), prefix));
    return iface;
}

class LeaseProcessingTest : public nk::test::CloudTest {
protected:
    void SetUp() override {
        CloudTest::SetUp();
        g_feature_onbox_status = true;
        ASSERT_TRUE(nk::onbox::Guardian::instance().init());
        const std::lock_guard lock(g_interfaces_mutex);
        g_interfaces = {interface("br-lan", nk::netMgmt::LAN, false, "198.51.100.1", 24),
                        interface("br-guest", nk::netMgmt::LAN, true, "192.0.2.1", 24),
                        interface("wan0", nk::netMgmt::WAN, false, "203.0.113.2", 24)};
    }

    void feed(const std::string& line) { process_subprocess_messages({line}); }

    // Requests of one command sent since the start of the case.
    std::vector<std::string> bodies(const std::string& command) {
        std::vector<std::string> out;
        for (const auto& [name, body] : cloud_.sent()) {
            if (name == command)
                out.push_back(body);
        }
        return out;
    }

    static std::set<std::string> stored_ips(const std::string& id, const macaddr& mac) {
        nk::devMgmt::Device record;
        record.device_id = id;
        std::set<std::string> out;
        if (!record.load_from_shmem(false, true))
            return {"no record"};
        for (const address& ip : record.macips[mac])
            out.insert(ip.to_string());
        return out;
    }
    static std::set<std::string> ips_of(const Device& device, const macaddr& mac) {
        std::set<std::string> out;
        for (const address& ip : device.local.macips.get_ips(mac, true))
            out.insert(ip.to_string());
        return out;
    }
};

TEST_F(LeaseProcessingTest, MalformedMessagesChangeNothing) {
    for (const char* line : {
             "not json",
             "{}",
             R"({"type": "leases"})",
             R"({"type": "leases", "data": []})",
             R"({"type": 1, "data": {"leases": []}})",
             R"({"type": "leases", "data": {"leases": {}}})",  // an object, not an array
             R"({"type": "unknown", "data": {"leases": []}})",
         }) {
        feed(line);
        EXPECT_FALSE(leases_received()) << line;
    }
    EXPECT_TRUE(g_devices.empty());
    EXPECT_EQ(sent(), 0u);
    // An empty snapshot is a real one: the daemon may answer device-id requests from now on.
    feed(leases_message("[]"));
    EXPECT_TRUE(leases_received());
}

TEST_F(LeaseProcessingTest, ADeviceFromItsFirstLeaseUntilItGoesOffline) {
    // First seen: registered under its host name, stored, reported onbox.
    feed(leases_message(
        "[" +
        lease(kLaptop, R"(["198.51.100.108", "fe80::200:5eff:fe00:5311", "2001:db8:1::1a6"])",
              "laptop", "br-lan") +
        "]"));
    ASSERT_EQ(g_devices.size(), 1u);
    const std::set<std::string> first = {"198.51.100.108", "2001:db8:1::1a6",
                                         "fe80::200:5eff:fe00:5311"};
    EXPECT_EQ(ips_of(g_devices[0], kLaptop), first);
    EXPECT_EQ(stored_ips("d-1", kLaptop), first);
    EXPECT_NE(nk::setMgmt::getKeyValue("/devices/d-1", ""), "");
    EXPECT_EQ(g_hostnames[kLaptop], "laptop");
    ASSERT_EQ(bodies("connect_device").size(), 1u);
    EXPECT_NE(bodies("connect_device")[0].find(R"("box_detected_name": "laptop")"),
              std::string::npos);
    EXPECT_EQ(bodies("set_device_onbox").size(), 1u);

    // New addresses, the link-local one kept; a guest without a host name joins.
    g_now += 40;
    cloud_.set("connect_device", nk::test::id_answer("d-2").c_str());
    feed(leases_message(
        "[" + lease(kLaptop, R"(["198.51.100.120", "2001:db8:1::1b0"])", "laptop", "br-lan") + "," +
        lease(kVisitor, R"(["192.0.2.100"])", "*", "br-guest") + "]"));
    ASSERT_EQ(g_devices.size(), 2u);
    const std::set<std::string> second = {"198.51.100.120", "2001:db8:1::1b0",
                                          "fe80::200:5eff:fe00:5311"};
    EXPECT_EQ(ips_of(g_devices[0], kLaptop), second);
    EXPECT_EQ(stored_ips("d-1", kLaptop), second);
    EXPECT_EQ(g_devices[1].cloud.onguest, 1);
    EXPECT_EQ(g_devices[0].cloud.onguest, 0);
    EXPECT_EQ(g_hostnames.count(kVisitor), 0u);
    EXPECT_EQ(g_devices[1].cloud.box_detected_name, "*");
    EXPECT_EQ(bodies("connect_device").size(), 2u);
    EXPECT_EQ(bodies("set_device_onbox").size(), 3u);  // the laptop's change, the new guest

    // The same snapshot again changes nothing and sends nothing.
    const std::size_t before = sent();
    feed(leases_message(
        "[" + lease(kLaptop, R"(["198.51.100.120", "2001:db8:1::1b0"])", "laptop", "br-lan") + "," +
        lease(kVisitor, R"(["192.0.2.100"])", "*", "br-guest") + "]"));
    EXPECT_EQ(sent(), before);

    // Gone from the leases: offline, reported, stored without addresses.
    g_now += 40;
    feed(leases_message("[" + lease(kVisitor, R"(["192.0.2.100"])", "*", "br-guest") + "]"));
    EXPECT_TRUE(ips_of(g_devices[0], kLaptop).empty());
    EXPECT_TRUE(stored_ips("d-1", kLaptop).empty());
    EXPECT_EQ(g_devices[0].local.onbox_info.onbox, 0);
    EXPECT_FALSE(g_devices[0].local.onbox_info.to_send);
    EXPECT_NE(bodies("set_device_onbox").back().find(R"("onbox": 0)"), std::string::npos);
    EXPECT_EQ(g_devices[1].local.onbox_info.onbox, 1);
}

TEST_F(LeaseProcessingTest, LeasesTheDaemonMustNotTakeAndMangledMacs) {
    ASSERT_EQ(nk::setMgmt::setKey("/daemons/nkdevicediscovery/ignored_macs/user",
                                  "00-00-5E-00-53-99, 00:00:5e:00:53:98"),
              0);
    const macaddr fake("02:5e:10:77:42:9a");
    feed(leases_message(
        "[" + lease(macaddr("00:00:5e:00:53:99"), R"(["198.51.100.9"])", "ignored", "br-lan") +
            "," + lease(macaddr("00:00:5e:00:53:98"), R"(["198.51.100.8"])", "*", "br-lan") + "," +
            lease(macaddr("00:00:5e:00:53:97"), R"(["203.0.113.9"])", "modem", "wan0") + "," +
            lease(macaddr("00:00:5e:00:53:96"), "[]", "empty", "br-lan") + "]",
        R"([{"real_mac": "00:00:5e:00:53:11", "fake_mac": "02:5e:10:77:42:9a",
             "ip": "198.51.100.120"},
            {"real_mac": "00:00:5e:00:53:12", "ip": "198.51.100.121"}])"));
    EXPECT_TRUE(g_devices.empty());
    EXPECT_EQ(sent(), 0u);
    EXPECT_TRUE(leases_received());
    // Host names of leases taken are kept even off the LAN; an ignored MAC leaves none.
    EXPECT_EQ(g_hostnames.count(macaddr("00:00:5e:00:53:99")), 0u);
    EXPECT_EQ(g_hostnames[macaddr("00:00:5e:00:53:97")], "modem");
    EXPECT_EQ(get_real_mac(fake, address("198.51.100.120")), kLaptop);
    EXPECT_EQ(get_real_mac(fake, address("198.51.100.121")), fake);
    {
        const std::lock_guard lock(g_mangled_macs_mutex);
        EXPECT_EQ(g_mangled_macs.size(), 1u);
    }
    // Each snapshot says which pairs hold now.
    feed(leases_message("[]", "[]"));
    EXPECT_EQ(get_real_mac(fake, address("198.51.100.120")), fake);
}

}  // namespace
