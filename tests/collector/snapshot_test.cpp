// What the collector reports: leases joined with the neighbour table on the LAN interfaces,
// randomised MACs folded into the device they replaced, and the neighbour table alone.
#include <gtest/gtest.h>
#include <linux/neighbour.h>

#include <map>
#include <set>
#include <string>

#include <nk/json.h>
#include <nk/setmgmt.h>

#include "snapshot.h"
#include "temp_dir.h"

namespace {

using namespace nk::collector;
using nk::sockutl::address;
using nk::sockutl::macaddr;

const macaddr kLaptop("00:00:5e:00:53:3a");
const macaddr kPhone("00:00:5e:00:53:59");
const macaddr kCamera("00:00:5e:00:53:ed");
const macaddr kTv("00:00:5e:00:53:9d");
const macaddr kVisitor("00:00:5e:00:53:d7");

std::string bytes(std::initializer_list<int> list) {
    std::string out;
    for (const int b : list)
        out.push_back(static_cast<char>(b));
    return out;
}

// The phone's DUID-LL and its RFC 4361 client identifier (IAID 1).
const std::string kPhoneDuid = bytes({0, 3, 0, 1, 0, 0, 0x5e, 0, 0x53, 0x59});
const std::string kPhoneId = bytes({0xff, 0, 0, 0, 1}) + kPhoneDuid;

LanInterfaces lans() {
    const auto net = [](const char* ip, int prefix) {
        const address a(ip);
        return std::make_pair(a, *address::netmask(a.family(), prefix));
    };
    return {{"br-lan",
             false,
             macaddr("02:00:00:00:01:01"),
             {net("198.51.100.1", 24), net("2001:db8:1::1", 64)}},
            {"br-guest",
             true,
             macaddr("02:00:00:00:02:01"),
             {net("192.0.2.1", 24), net("2001:db8:2::1", 64)}}};
}

Lease lease(const macaddr& mac, const char* ip, const char* host, const std::string& id = "") {
    return Lease{mac, address(ip), host, id};
}

Neighbour neighbour(const char* iface, const char* ip, const macaddr& mac, int state) {
    return Neighbour{iface, address(ip), mac, static_cast<std::uint16_t>(state)};
}

// mac -> "iface host ip ip ..." for a compact comparison.
std::map<std::string, std::string> shown(const Snapshot& s) {
    std::map<std::string, std::string> out;
    for (const auto& [mac, leased] : s.macs) {
        std::string line = leased.iface + " " + leased.host;
        for (const address& ip : leased.ips)
            line += " " + ip.to_string();
        out[mac.to_string()] = line;
    }
    return out;
}

class SnapshotTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(nk::setMgmt::init(), 0); }
    void TearDown() override { nk::setMgmt::uninit(); }

    nk::test::TempDir dir_;
    nk::test::ScopedEnv settings_{"NK_SETTINGS_DIR", dir_.path()};
    ClientHistory history_;
};

TEST_F(SnapshotTest, LeasesWithTheirInterfacesAndTheNeighbourTablesIpv6Addresses) {
    const std::string laptop_duid =
        bytes({0, 1, 0, 1, 0x32, 0x96, 0x7f, 0x6d, 0, 0, 0x5e, 0, 0x53, 0x3a});
    const std::string enterprise_duid = bytes({0, 2, 0, 0, 0x30, 0x39, 1, 2, 3});
    const std::vector<Lease> leases = {
        lease(kLaptop, "198.51.100.149", "laptop"),
        lease(macaddr(), "2001:db8:1::117", "laptop", laptop_duid),  // by the DUID's MAC
        lease(kPhone, "198.51.100.180", "phone", kPhoneId),
        lease(macaddr(), "2001:db8:1::1ed", "phone", kPhoneDuid),  // by the client's identity
        lease(kCamera, "198.51.100.128", "camera", bytes({1, 0, 0, 0x5e, 0, 0x53, 0xed})),
        lease(macaddr(), "2001:db8:1::99", "tv", enterprise_duid),  // by the neighbour table
        lease(macaddr(), "2001:db8:1::77", "lost", enterprise_duid),
        lease(kVisitor, "192.0.2.106", "", bytes({1, 2, 3})),
        lease(macaddr("00:00:5e:00:53:05"), "10.0.0.5", "elsewhere"),
    };
    const std::vector<Neighbour> neighbours = {
        neighbour("br-lan", "2001:db8:1:0:200:5eff:fe00:53ed", kCamera, NUD_REACHABLE),
        neighbour("br-lan", "fe80::200:5eff:fe00:53ed", kCamera, NUD_STALE),
        neighbour("br-lan", "fe80::200:5eff:fe00:5359", kPhone, NUD_FAILED),
        neighbour("br-lan", "2001:db8:1::99", kTv, NUD_STALE),
        neighbour("br-lan", "2001:db8:1::abc", macaddr("00:00:5e:00:53:aa"), NUD_REACHABLE),
        neighbour("br-guest", "fe80::200:5eff:fe00:53d7", kVisitor, NUD_DELAY),
        neighbour("wan0", "fe80::1", kLaptop, NUD_REACHABLE),
    };
    const Snapshot s = leases_snapshot(leases, neighbours, lans(), history_);
    EXPECT_EQ(shown(s), (std::map<std::string, std::string>{
                            {"00:00:5e:00:53:3a", "br-lan laptop 198.51.100.149 2001:db8:1::117"},
                            {"00:00:5e:00:53:59", "br-lan phone 198.51.100.180 2001:db8:1::1ed"},
                            {"00:00:5e:00:53:ed",
                             "br-lan camera 198.51.100.128 2001:db8:1:0:200:5eff:fe00:53ed "
                             "fe80::200:5eff:fe00:53ed"},
                            {"00:00:5e:00:53:9d", "br-lan tv 2001:db8:1::99"},
                            {"00:00:5e:00:53:d7", "br-guest  192.0.2.106 fe80::200:5eff:fe00:53d7"},
                        }));
    EXPECT_EQ(s.skipped,
              (std::vector<std::string>{"no LAN or guest interface serves 10.0.0.5",
                                        "no MAC known yet for the IPv6 lease 2001:db8:1::77"}));
    EXPECT_TRUE(s.mangled.empty());
}

TEST_F(SnapshotTest, ARandomisedMacIsReportedAsTheDeviceItReplaced) {
    const macaddr fake("02:45:57:de:3b:da");
    leases_snapshot({lease(kPhone, "198.51.100.180", "phone", kPhoneId)}, {}, lans(), history_);
    history_.save();

    // A restarted collector remembers the client.
    ClientHistory restarted;
    restarted.load();
    const Snapshot s = leases_snapshot(
        {lease(fake, "198.51.100.180", "phone", kPhoneId),
         lease(macaddr(), "2001:db8:1::1ed", "phone", kPhoneDuid)},
        {neighbour("br-lan", "fe80::a002:f8bf:694d:1a93", fake, NUD_REACHABLE)}, lans(), restarted);
    EXPECT_EQ(shown(s),
              (std::map<std::string, std::string>{
                  {"00:00:5e:00:53:59",
                   "br-lan phone 198.51.100.180 2001:db8:1::1ed fe80::a002:f8bf:694d:1a93"}}));
    ASSERT_EQ(s.mangled.size(), 1u);
    EXPECT_EQ(s.mangled[0], (MangledMac{kPhone, fake, address("198.51.100.180")}));
    const nk::json_ptr message(json_loads(leases_message(s).c_str(), 0, nullptr));
    const json_t* pair =
        json_array_get(nk::json_object_get_recursive(message.get(), {"data", "mangled_macs"}), 0);
    EXPECT_STREQ(nk::json_string_member(pair, "real_mac"), "00:00:5e:00:53:59");
    EXPECT_STREQ(nk::json_string_member(pair, "fake_mac"), "02:45:57:de:3b:da");
    EXPECT_STREQ(nk::json_string_member(pair, "ip"), "198.51.100.180");

    // A new universal MAC with the same identity is a new network card: it takes over.
    const macaddr card("00:00:5e:00:53:60");
    const Snapshot replaced =
        leases_snapshot({lease(card, "198.51.100.181", "phone", kPhoneId)}, {}, lans(), restarted);
    EXPECT_EQ(replaced.macs.count(card), 1u);
    EXPECT_TRUE(replaced.mangled.empty());
    // An identifier made of the MAC alone identifies nothing more: it is not kept.
    leases_snapshot({lease(kCamera, "198.51.100.128", "", bytes({1, 0, 0, 0x5e, 0, 0x53, 0xed}))},
                    {}, lans(), restarted);
    EXPECT_EQ(restarted.clients().size(), 1u);
}

TEST(NeighboursSnapshot, LiveEntriesOfClientsOnTheLan) {
    const std::vector<Neighbour> neighbours = {
        neighbour("br-lan", "198.51.100.128", kCamera, NUD_REACHABLE),
        neighbour("br-lan", "fe80::200:5eff:fe00:53ed", kCamera, NUD_PROBE),
        neighbour("br-guest", "192.0.2.106", kVisitor, NUD_STALE),
        neighbour("br-lan", "198.51.100.7", kTv, NUD_FAILED),
        neighbour("br-lan", "198.51.100.8", kPhone, NUD_INCOMPLETE),
        neighbour("br-lan", "198.51.100.9", kLaptop, NUD_PERMANENT),
        neighbour("br-lan", "169.254.3.3", kLaptop, NUD_REACHABLE),  // not this LAN's subnet
        neighbour("br-lan", "fe80::ff:fe00:101", macaddr("02:00:00:00:01:01"), NUD_STALE),
        neighbour("wan0", "203.0.113.1", macaddr("00:00:5e:00:53:01"), NUD_REACHABLE),
    };
    EXPECT_EQ(shown(neighbours_snapshot(neighbours, lans())),
              (std::map<std::string, std::string>{
                  {"00:00:5e:00:53:ed", "br-lan  198.51.100.128 fe80::200:5eff:fe00:53ed"},
                  {"00:00:5e:00:53:d7", "br-guest  192.0.2.106"}}));
}

}  // namespace
