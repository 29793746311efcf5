// What the collector reports: leases joined with the neighbour table on the LAN interfaces,
// randomised MACs folded into the device they replaced (by identifier, or by name and
// fingerprint once the earlier MAC is gone), and the neighbour table alone.
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
    ClientResolver resolver_;
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
    const Snapshot s = leases_snapshot(leases, neighbours, lans(), resolver_);
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
    leases_snapshot({lease(kPhone, "198.51.100.180", "phone", kPhoneId)}, {}, lans(), resolver_);
    resolver_.history().save();

    // A restarted collector remembers the client.
    ClientResolver restarted;
    restarted.history().load(0);
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
    EXPECT_EQ(restarted.history().find_id(kPhoneDuid)->mac, card);
}

// An iPhone's kind of client: its identifier is its MAC, its old lease stays when it rotates.
TEST_F(SnapshotTest, ARotationByNameAndFingerprintWaitsUntilTheEarlierMacIsGone) {
    const macaddr iphone("00:00:5e:00:53:10");
    const macaddr fake("02:45:57:de:3b:da");
    LeaseEventLog events;
    const std::string request =
        R"(","options":"1,121,3,6,15,119,252","host_hex":"4c756361732d6950686f6e65"})";
    events.take_lines(R"({"event":"add","ip":"198.51.100.150","mac":"00:00:5e:00:53:10)" + request +
                      "\n" + R"({"event":"add","ip":"198.51.100.151","mac":"02:45:57:de:3b:da)" +
                      request + "\n");
    const Lease before =
        lease(iphone, "198.51.100.150", "Lucas-iPhone", bytes({1, 0, 0, 0x5e, 0, 0x53, 0x10}));
    const Lease after =
        lease(fake, "198.51.100.151", "Lucas-iPhone", bytes({1, 2, 0x45, 0x57, 0xde, 0x3b, 0xda}));
    leases_snapshot({before}, {}, lans(), resolver_, {&events});

    // Its earlier MAC still holds a lease: the new one is held back while that is probed.
    const Snapshot held = leases_snapshot({before, after}, {}, lans(), resolver_, {&events});
    EXPECT_EQ(held.macs.count(fake), 0u);
    ASSERT_EQ(held.skipped.size(), 1u);
    EXPECT_NE(held.skipped[0].find("checking that 00:00:5e:00:53:10 has left"), std::string::npos);
    const std::vector<ProbeTarget> probes = resolver_.take_probes();
    ASSERT_EQ(probes.size(), 1u);
    EXPECT_EQ(probes[0].ip, address("198.51.100.150"));
    EXPECT_TRUE(resolver_.deadline().has_value());

    // Nobody answered there: it was this phone.
    Neighbour failed = neighbour("br-lan", "198.51.100.150", macaddr(), NUD_FAILED);
    failed.updated = Neighbour::Clock::now();
    const Snapshot merged =
        leases_snapshot({before, after}, {failed}, lans(), resolver_, {&events});
    EXPECT_EQ(shown(merged),
              (std::map<std::string, std::string>{
                  {"00:00:5e:00:53:10", "br-lan Lucas-iPhone 198.51.100.150 198.51.100.151"}}));
    EXPECT_EQ(merged.mangled, (std::vector<MangledMac>{{iphone, fake, address("198.51.100.151")}}));

    // Undecided at the end of the wait, it is a device of its own.
    ClientResolver impatient(std::chrono::milliseconds(0));
    leases_snapshot({before}, {}, lans(), impatient, {&events});
    const Snapshot split = leases_snapshot({before, after}, {}, lans(), impatient, {&events});
    EXPECT_EQ(split.macs.count(fake), 1u);
    EXPECT_TRUE(split.mangled.empty());
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
