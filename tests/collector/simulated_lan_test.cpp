// Discovery end to end on a simulated LAN of this test's own (scripts/lan in network
// namespaces): real dnsmasq, real DHCP clients, the real collector started by the real daemon,
// the cloud emulator, a private broker. Needs root.
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <map>
#include <sstream>
#include <string>

#include <nk/devmgmt.h>
#include <nk/json.h>

#include "daemon_process.h"
#include "lan.h"
#include "temp_dir.h"
#include "test_broker.h"
#include "wait.h"

namespace {

using namespace std::chrono_literals;
using nk::sockutl::address;
using nk::sockutl::macaddr;

struct Client {
    std::string name;
    bool guest;
    const char* net4;  // the bridge's subnet, as a prefix of the address text
    const char* net6;
};

// The clients `scripts/lan up` makes.
const Client kClients[] = {{"laptop", false, "198.51.100.", "2001:db8:1:"},
                           {"camera", false, "198.51.100.", "2001:db8:1:"},
                           {"phone", false, "198.51.100.", "2001:db8:1:"},
                           {"visitor", true, "192.0.2.", "2001:db8:2:"}};

bool starts_with(const std::string& s, const char* prefix) {
    return s.rfind(prefix, 0) == 0;
}

class SimulatedLanTest : public ::testing::Test {
protected:
    void SetUp() override {
        const std::string why =
            nk::test::Lan::unavailable({"dnsmasq", "dhclient", "udhcpc", "dhcpcd", "busybox"});
        if (!why.empty())
            GTEST_SKIP() << why;
        ASSERT_TRUE(broker_.start());
        ASSERT_TRUE(lan_.up());
        for (const auto& [key, value] : std::map<std::string, std::string>{
                 {"/network/interfaces/roles/wan0", "wan"},
                 {"/network/interfaces/roles/br-lan", "lan"},
                 {"/network/interfaces/roles/br-guest", "guest"},
                 {"/network/dhcp/lease_files", lan_.dir() + "/dnsmasq.leases"},
                 {"/network/dhcp/lease_events", lan_.dir() + "/dhcp-events"}})
            nk::test::write_setting(settings_, key, value);
        ASSERT_TRUE(cloud_.start({NK_CLOUD_EMU_BIN, "-f", "--settings", settings_, "--broker",
                                  broker_.address(), "--db", db_, "serve"}));
        ASSERT_TRUE(cloud_.wait_for_line("cloud ready"));
        ASSERT_TRUE(daemon_.start({"/usr/sbin/ip", "netns", "exec", lan_.box(), NK_DAEMON_BIN, "-f",
                                   "--settings", settings_, "--devmgmt", devmgmt_, "--broker",
                                   broker_.address(), "--log-level", "4"}));
    }

    void TearDown() override {
        daemon_.stop(SIGTERM);
        cloud_.stop(SIGTERM);
        nk::devMgmt::close_table();
        lan_.down();
    }

    std::string client_mac(const std::string& name) {
        return lan_.first_line("exec " + name + " cat /sys/class/net/eth0/address");
    }

    // The device table's record that lists the MAC, if any.
    static std::optional<nk::devMgmt::Device> record_of(const macaddr& mac) {
        for (nk::devMgmt::Device& record : nk::devMgmt::Device::list()) {
            if (record.macips.count(mac) != 0)
                return record;
        }
        return std::nullopt;
    }

    // Stored with its host name, guest flag, an IPv4 address and a global IPv6 one of its LAN.
    static bool discovered(const Client& c, const macaddr& mac) {
        const std::optional<nk::devMgmt::Device> record = record_of(mac);
        if (!record || record->box_detected_name != c.name || record->onguest != c.guest)
            return false;
        bool v4 = false;
        bool v6 = false;
        for (const address& ip : record->macips.at(mac)) {
            v4 = v4 || (ip.is_v4() && starts_with(ip.to_string(), c.net4));
            v6 = v6 || (ip.is_v6() && starts_with(ip.to_string(), c.net6));
        }
        return v4 && v6;
    }

    nk::test::TempDir dir_;
    std::string settings_ = dir_ / "settings";
    std::string devmgmt_ = dir_ / "devmgmt";
    std::string db_ = dir_ / "cloud.db";
    nk::test::ScopedEnv devmgmt_env_{"NK_DEVMGMT_DIR", devmgmt_};
    nk::test::ScopedEnv settings_env_{"NK_SETTINGS_DIR", settings_};
    nk::test::TestBroker broker_{dir_.path()};
    nk::test::Lan lan_{NK_LAN_SCRIPT, dir_ / "lan"};
    nk::test::DaemonProcess cloud_;
    nk::test::DaemonProcess daemon_;
};

TEST_F(SimulatedLanTest, EveryClientIsDiscoveredFollowedAndKeptWhenItRotatesItsMac) {
    std::map<std::string, macaddr> macs;
    for (const Client& c : kClients)
        macs[c.name] = macaddr(client_mac(c.name));
    for (const Client& c : kClients) {
        EXPECT_TRUE(nk::test::wait_until([&] { return discovered(c, macs[c.name]); }, 60s))
            << c.name;
    }

    // The cloud has each under its host name, with its guest flag and its addresses. They
    // reach it in onbox reports at least 30 s apart: addresses that came in a second lease
    // message arrive with the next report.
    std::string listed;
    const auto in_cloud = [&](const Client& c) {
        std::istringstream lines(listed);
        for (std::string line; std::getline(lines, line);) {
            const nk::json_ptr d(json_loads(line.c_str(), 0, nullptr));
            const char* name = nk::json_string_member(d.get(), "box_detected_name");
            if (name != nullptr && name == c.name) {
                const std::string mac = macs[c.name].to_string();
                return json_integer_value(json_object_get(d.get(), "network")) == c.guest &&
                       json_array_size(nk::json_object_get_recursive(
                           d.get(), {"ip_list", mac.c_str(), "ipv4"})) == 1;
            }
        }
        return false;
    };
    EXPECT_TRUE(nk::test::wait_until(
        [&] {
            listed.clear();
            nk::test::run_command(std::string(NK_CLOUD_EMU_BIN) + " --db " + db_ + " list",
                                  &listed);
            return std::all_of(std::begin(kClients), std::end(kClients), in_cloud);
        },
        45s))
        << listed;

    // A phone that takes a random MAC stays the device it was.
    ASSERT_EQ(lan_.run("rotate phone"), 0);
    const std::string fake = client_mac("phone");
    ASSERT_TRUE(daemon_.wait_for_line(R"("fake_mac":")" + fake + R"(")", 30s));
    // The message is traced before it is applied.
    EXPECT_TRUE(nk::test::wait_until([&] { return discovered(kClients[2], macs["phone"]); }, 10s));
    EXPECT_FALSE(record_of(macaddr(fake)).has_value());

    // A client that leaves goes offline; one that joins appears.
    ASSERT_EQ(lan_.run("del camera"), 0);
    ASSERT_EQ(lan_.run("add tv --client udhcpc"), 0);
    const Client tv{"tv", false, "198.51.100.", "2001:db8:1:"};
    EXPECT_TRUE(
        nk::test::wait_until([&] { return discovered(tv, macaddr(client_mac("tv"))); }, 60s));
    EXPECT_TRUE(nk::test::wait_until(
        [&] {
            const auto camera = record_of(macs["camera"]);
            return camera && camera->macips.at(macs["camera"]).empty();
        },
        10s));

    // Another DHCP server's LAN: the neighbour table alone shows the same clients.
    std::string external;
    ASSERT_EQ(nk::test::run_command(
                  "ip netns exec " + lan_.box() + " " + NK_NKDEVINFO_BIN + " -external --once",
                  &external),
              0);
    for (const std::string name : {"laptop", "visitor", "tv"})
        EXPECT_NE(external.find(client_mac(name)), std::string::npos) << name << ": " << external;
}

}  // namespace
