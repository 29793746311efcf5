// The collector on a LAN of the test's own (scripts/lan): its service scanners against real
// peers, and its pairing of a phone's rotated MAC with the one it had, on persona clients that
// replay an iPhone's DHCP. Needs root.
#include <gtest/gtest.h>

#include <csignal>
#include <string>
#include <vector>

#include <fmt/format.h>

#include "daemon_process.h"
#include "lan.h"
#include "tables.h"
#include "temp_dir.h"
#include "wait.h"

namespace {

using namespace std::chrono_literals;

class CollectorLanTest : public ::testing::Test {
protected:
    void SetUp() override {
        const std::string why = nk::test::Lan::unavailable(
            {"dnsmasq", "avahi-daemon", "dbus-daemon", "minidlnad", "nmbd", "busybox"});
        if (!why.empty())
            GTEST_SKIP() << why;
        ASSERT_TRUE(lan_.up("--empty"));
        set("/network/interfaces/roles/br-lan", "lan");
        set("/network/interfaces/roles/br-guest", "guest");
        set("/network/interfaces/roles/wan0", "wan");
        set("/network/dhcp/lease_files", dir_ / "lan/dnsmasq.leases");
        set("/network/dhcp/lease_events", dir_ / "lan/dhcp-events");
    }

    void TearDown() override {
        collector_.stop(SIGTERM);
        lan_.down();
    }

    bool start_collector() {
        return collector_.start(
            {"/bin/sh", "-c",
             "exec ip netns exec " + lan_.box() + " env DBUS_SYSTEM_BUS_ADDRESS=unix:path=" +
                 (dir_ / "lan/box-mdns/bus") + " " + NK_NKDEVINFO_BIN + " -internal --settings " +
                 (dir_ / "settings") + " --log-level 4 >" + (dir_ / "out")});
    }
    void set(const std::string& key, const std::string& value) {
        nk::test::write_setting(dir_ / "settings", key, value);
    }
    // Whether some line of its output holds every one of `parts`.
    bool said(const std::vector<std::string>& parts) {
        return nk::test::has_line_with(dir_ / "out", parts);
    }
    std::string mac_of(const std::string& client) {
        const std::string line = nk::test::read_data(dir_ / ("lan/clients/" + client + "/mac"));
        return line.substr(0, line.find('\n'));
    }

    nk::test::TempDir dir_;
    nk::test::Lan lan_{NK_LAN_SCRIPT, dir_ / "lan"};
    nk::test::DaemonProcess collector_;
};

// avahi-daemon publishing _http._tcp and _ipp._tcp, minidlna, nmbd, and a hostile UPnP peer
// whose descriptions never come or never end.
TEST_F(CollectorLanTest, ReportsWhatTheServicePeersAnnounce) {
    ASSERT_EQ(lan_.run("add laptop --serve mdns,netbios"), 0);
    ASSERT_EQ(lan_.run("add camera --client udhcpc --serve upnp"), 0);
    ASSERT_EQ(lan_.run("add tarpit --client udhcpc"), 0);
    const std::string laptop = lan_.ipv4_of("laptop");
    const std::string camera = lan_.ipv4_of("camera");
    const std::string tarpit = lan_.ipv4_of("tarpit");
    ASSERT_FALSE(laptop.empty() || camera.empty() || tarpit.empty());
    // The hostile peer announces first: its fetches are under way while the rest is found.
    ASSERT_EQ(nk::test::run_command(lan_.command("exec tarpit setsid ") + NK_TARPIT + " " + tarpit +
                                    " >/dev/null 2>&1 &"),
              0);
    ASSERT_TRUE(start_collector());

    for (auto row : nk::test::read_table(NK_COLLECTOR_DATA "/services/lan_reports.tsv")) {
        for (std::string& part : row)
            part = nk::test::expand(part, {{"laptop", laptop}, {"camera", camera}});
        EXPECT_TRUE(nk::test::wait_until(
            [&] { return said(std::vector<std::string>(row.begin() + 1, row.end())); }, 90s))
            << row[0];
    }
    EXPECT_TRUE(collector_.wait_for_line(tarpit + ":8080/big.xml skipped: more than 65536", 30s));
    EXPECT_TRUE(collector_.wait_for_line(tarpit + ":8080/slow.xml skipped: Timeout", 30s));
    EXPECT_FALSE(said({"\"ip\":\"" + tarpit + "\""}));
    EXPECT_EQ(collector_.count_lines("ERROR"), 0) << collector_.log();
}

// A phone leaves without a release and comes back with a random MAC: the same device. Two
// online together with the same name and fingerprint stay two.
TEST_F(CollectorLanTest, ARotatedPhoneStaysOneDeviceAndTwoOnlineTogetherStayTwo) {
    ASSERT_TRUE(start_collector());
    ASSERT_EQ(lan_.run("add phone --persona apple-03"), 0);
    const std::string mac = mac_of("phone");
    ASSERT_TRUE(nk::test::wait_until([&] { return said({"\"mac\":\"" + mac + "\""}); }, 30s));
    ASSERT_EQ(lan_.run("rotate phone"), 0);
    const std::string fake = mac_of("phone");
    EXPECT_TRUE(nk::test::wait_until(
        [&] {
            return said({"\"real_mac\":\"" + mac + "\"", "\"fake_mac\":\"" + fake + "\""});
        },
        30s));
    EXPECT_TRUE(collector_.wait_for_line(fake + " is " + mac +
                                         ": host name 'lucas-iphone' and DHCP fingerprint"));
    EXPECT_FALSE(said({"\"mac\":\"" + fake + "\""}));

    // The twin joins with a random MAC, as a phone does on a network new to it.
    const std::string twin = "02:00:5e:00:53:33";
    for (const auto& [name, mac] :
         {std::pair<std::string, std::string>{"tablet", "00:00:5e:00:53:20"}, {"twin", twin}}) {
        ASSERT_EQ(lan_.run(fmt::format("add {} --mac {} --persona apple-03 --hostname Lucas-iPad",
                                       name, mac)),
                  0);
        EXPECT_TRUE(nk::test::wait_until([&] { return said({"\"mac\":\"" + mac + "\""}); }, 30s));
    }
    EXPECT_TRUE(collector_.wait_for_line(
        twin + " is a device of its own: host name 'lucas-ipad' and DHCP fingerprint, but"));
    EXPECT_FALSE(said({"\"fake_mac\":\"" + twin + "\""}));
    EXPECT_EQ(collector_.count_lines("ERROR"), 0) << collector_.log();
}

}  // namespace
