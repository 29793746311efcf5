// The collector's service scanners against real peers on a LAN of the test's own
// (scripts/lan): avahi-daemon publishing _http._tcp and _ipp._tcp, minidlna, nmbd, and a
// hostile UPnP peer whose descriptions never come or never end. Needs root.
#include <gtest/gtest.h>

#include <csignal>
#include <string>
#include <vector>

#include "daemon_process.h"
#include "lan.h"
#include "tables.h"
#include "temp_dir.h"
#include "wait.h"

namespace {

using namespace std::chrono_literals;

class CollectorServicesLanTest : public ::testing::Test {
protected:
    void SetUp() override {
        const std::string why = nk::test::Lan::unavailable(
            {"dnsmasq", "avahi-daemon", "dbus-daemon", "minidlnad", "nmbd"});
        if (!why.empty())
            GTEST_SKIP() << why;
        ASSERT_TRUE(lan_.up("--empty"));
        ASSERT_EQ(lan_.run("add laptop --serve mdns,netbios"), 0);
        ASSERT_EQ(lan_.run("add camera --client udhcpc --serve upnp"), 0);
        ASSERT_EQ(lan_.run("add tarpit --client udhcpc"), 0);
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

    void set(const std::string& key, const std::string& value) {
        nk::test::write_setting(dir_ / "settings", key, value);
    }
    // Whether some line of its output holds every one of `parts`.
    bool said(const std::vector<std::string>& parts) {
        return nk::test::has_line_with(dir_ / "out", parts);
    }

    nk::test::TempDir dir_;
    nk::test::Lan lan_{NK_LAN_SCRIPT, dir_ / "lan"};
    nk::test::DaemonProcess collector_;
};

TEST_F(CollectorServicesLanTest, ReportsWhatThePeersAnnounce) {
    const std::string laptop = lan_.ipv4_of("laptop");
    const std::string camera = lan_.ipv4_of("camera");
    const std::string tarpit = lan_.ipv4_of("tarpit");
    ASSERT_FALSE(laptop.empty() || camera.empty() || tarpit.empty());
    // The hostile peer announces first: its fetches are under way while the rest is found.
    ASSERT_EQ(nk::test::run_command(lan_.command("exec tarpit setsid ") + NK_TARPIT + " " + tarpit +
                                    " >/dev/null 2>&1 &"),
              0);
    ASSERT_TRUE(collector_.start(
        {"/bin/sh", "-c",
         "exec ip netns exec " + lan_.box() + " env DBUS_SYSTEM_BUS_ADDRESS=unix:path=" +
             (dir_ / "lan/box-mdns/bus") + " " + NK_NKDEVINFO_BIN + " -internal --settings " +
             (dir_ / "settings") + " --log-level 3 >" + (dir_ / "out")}));

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

}  // namespace
