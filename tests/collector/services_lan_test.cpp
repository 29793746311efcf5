// The collector's service scanners against real peers on a LAN of the test's own
// (scripts/lan): avahi-daemon publishing _http._tcp and _ipp._tcp, minidlna, nmbd, and a
// hostile UPnP peer whose descriptions never come or never end. Needs root.
#include <gtest/gtest.h>

#include <unistd.h>

#include <csignal>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "daemon_process.h"
#include "temp_dir.h"
#include "wait.h"

namespace {

using namespace std::chrono_literals;

class CollectorServicesLanTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (::geteuid() != 0)
            GTEST_SKIP() << "the simulated LAN needs root (network namespaces)";
        if (nk::test::run_command("unshare --net --mount true 2>/dev/null") != 0)
            GTEST_SKIP() << "network namespaces are not available here";
        for (const char* tool : {"dnsmasq", "avahi-daemon", "dbus-daemon", "minidlnad", "nmbd"}) {
            if (nk::test::run_command(std::string("command -v ") + tool + " >/dev/null") != 0)
                GTEST_SKIP() << tool << " is not installed (scripts/deps installs it)";
        }
        ASSERT_EQ(lan("up --empty"), 0);
        up_ = true;
        ASSERT_EQ(lan("add laptop --serve mdns,netbios"), 0);
        ASSERT_EQ(lan("add camera --client udhcpc --serve upnp"), 0);
        ASSERT_EQ(lan("add tarpit --client udhcpc"), 0);
        for (const char* role : {"br-lan lan", "br-guest guest", "wan0 wan"}) {
            std::istringstream in(role);
            std::string name, value;
            in >> name >> value;
            set("/network/interfaces/roles/" + name, value);
        }
        set("/network/dhcp/lease_files", dir_ / "lan/dnsmasq.leases");
    }

    void TearDown() override {
        collector_.stop(SIGTERM);
        if (up_) {
            EXPECT_EQ(lan("down"), 0);
        }
    }

    int lan(const std::string& command, std::string* out = nullptr) {
        return nk::test::run_command(std::string(NK_LAN_SCRIPT) + " --dir " + (dir_ / "lan") + " " +
                                         command + (out ? "" : " >/dev/null"),
                                     out);
    }
    // A client's IPv4 address, once it has one.
    std::string ipv4_of(const std::string& client) {
        std::string ip;
        nk::test::wait_until(
            [&] {
                lan("exec " + client +
                        " sh -c \"ip -4 -o addr show dev eth0 | awk '{print \\$4}' | cut -d/ -f1\"",
                    &ip);
                return !ip.empty();
            },
            30s);
        return ip.substr(0, ip.find('\n'));
    }
    void set(const std::string& key, const std::string& value) {
        const std::string path = (dir_ / "settings") + key;
        ASSERT_EQ(nk::test::run_command("mkdir -p " + path), 0);
        std::ofstream(path + "/.value") << value;
    }
    std::vector<std::string> lines() {
        std::ifstream in(dir_ / "out");
        std::vector<std::string> all;
        for (std::string line; std::getline(in, line);)
            all.push_back(line);
        return all;
    }
    // Whether some line holds every one of `parts`.
    bool said(const std::vector<std::string>& parts) {
        for (const std::string& line : lines()) {
            bool all = true;
            for (const std::string& part : parts)
                all = all && line.find(part) != std::string::npos;
            if (all)
                return true;
        }
        return false;
    }

    nk::test::TempDir dir_;
    bool up_ = false;
    nk::test::DaemonProcess collector_;
};

TEST_F(CollectorServicesLanTest, ReportsWhatThePeersAnnounce) {
    const std::string laptop = ipv4_of("laptop");
    const std::string camera = ipv4_of("camera");
    const std::string tarpit = ipv4_of("tarpit");
    ASSERT_FALSE(laptop.empty() || camera.empty() || tarpit.empty());
    std::string box;
    ASSERT_EQ(lan("ns box", &box), 0);
    box = box.substr(0, box.find('\n'));
    // The hostile peer announces first: its fetches are under way while the rest is found.
    ASSERT_EQ(nk::test::run_command(std::string(NK_LAN_SCRIPT) + " --dir " + (dir_ / "lan") +
                                    " exec tarpit setsid " + NK_TARPIT + " " + tarpit +
                                    " >/dev/null 2>&1 &"),
              0);
    ASSERT_TRUE(collector_.start(
        {"/bin/sh", "-c",
         "exec ip netns exec " + box + " env DBUS_SYSTEM_BUS_ADDRESS=unix:path=" +
             (dir_ / "lan/box-mdns/bus") + " " + NK_NKDEVINFO_BIN + " -internal --settings " +
             (dir_ / "settings") + " --log-level 3 >" + (dir_ / "out")}));

    struct Expected {
        const char* what;
        std::vector<std::string> parts;
    };
    const Expected expected[] = {
        {"avahi _http._tcp",
         {"\"type\":\"avahi\"", "\"" + laptop + "\"", "\"service\":\"_http._tcp\"",
          "\"hostname\":\"laptop.local\"", "path=/index.html", "\"port\":80"}},
        {"avahi _ipp._tcp",
         {"\"type\":\"avahi\"", "\"" + laptop + "\"", "\"service\":\"_ipp._tcp\"",
          "rp=printers/laptop", "ty=NK Laser 100", "\"port\":631"}},
        {"upnp minidlna",
         {"\"type\":\"upnp\"", "\"ip\":\"" + camera + "\"", "\"friendlyName\":\"camera media\"",
          "\"serialNumber\":\"camera-0001\"",
          "\"deviceType\":\"urn:schemas-upnp-org:device:"
          "MediaServer:1\"",
          "\"user_agent\":\"Debian DLNADOC/1.50 UPnP/1.0 MiniDLNA/1.3.0\""}},
        {"netbios nmbd",
         {"\"type\":\"netbios\"", "\"ip\":\"" + laptop + "\"", "\"name\":\"LAPTOP\"",
          "\"domain\":\"NKHOME\"", "{\"name\":\"LAPTOP\",\"service\":\"file server\"}"}},
    };
    for (const Expected& e : expected)
        EXPECT_TRUE(nk::test::wait_until([&] { return said(e.parts); }, 90s)) << e.what;
    EXPECT_TRUE(collector_.wait_for_line(tarpit + ":8080/big.xml skipped: more than 65536", 30s));
    EXPECT_TRUE(collector_.wait_for_line(tarpit + ":8080/slow.xml skipped: Timeout", 30s));
    EXPECT_FALSE(said({"\"ip\":\"" + tarpit + "\""}));
    EXPECT_EQ(collector_.count_lines("ERROR"), 0) << collector_.log();
}

}  // namespace
