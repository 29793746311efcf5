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
#include "tables.h"
#include "temp_dir.h"

namespace {

using namespace nk::collector;
using nk::sockutl::address;
using nk::sockutl::macaddr;

const macaddr kPhone("00:00:5e:00:53:59");

// The phone's DUID-LL and its RFC 4361 client identifier (IAID 1).
const std::string kPhoneDuid = *hex_bytes("00:03:00:01:00:00:5e:00:53:59");
const std::string kPhoneId = *hex_bytes("ff:00:00:00:01") + kPhoneDuid;

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

// A table of data/: its leases and neighbour entries, and what is to be shown and skipped.
struct Table {
    std::vector<Lease> leases;
    std::vector<Neighbour> neighbours;
    std::map<std::string, std::string> shown;
    std::vector<std::string> skipped;
};

Table table(const std::string& name) {
    const std::map<std::string, int> states{
        {"reachable", NUD_REACHABLE}, {"stale", NUD_STALE}, {"failed", NUD_FAILED},
        {"delay", NUD_DELAY},         {"probe", NUD_PROBE}, {"incomplete", NUD_INCOMPLETE},
        {"permanent", NUD_PERMANENT}};
    Table t;
    for (std::vector<std::string> row : nk::test::read_table(NK_COLLECTOR_DATA "/" + name)) {
        row.resize(5);
        if (row[0] == "lease") {
            const macaddr mac = row[1] == "-" ? macaddr() : macaddr(row[1]);
            t.leases.push_back(
                lease(mac, row[2].c_str(), row[3].c_str(), hex_bytes(row[4]).value_or("")));
        } else if (row[0] == "neighbour") {
            t.neighbours.push_back(
                neighbour(row[1].c_str(), row[2].c_str(), macaddr(row[3]), states.at(row[4])));
        } else if (row[0] == "shown") {
            t.shown[row[1]] = row[2];
        } else {
            t.skipped.push_back(row[1]);
        }
    }
    return t;
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
    const Table t = table("snapshot-leases.tsv");
    const Snapshot s = leases_snapshot(t.leases, t.neighbours, lans(), resolver_);
    EXPECT_EQ(shown(s), t.shown);
    EXPECT_EQ(s.skipped, t.skipped);
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
        lease(iphone, "198.51.100.150", "Lucas-iPhone", *hex_bytes("01:00:00:5e:00:53:10"));
    const Lease after =
        lease(fake, "198.51.100.151", "Lucas-iPhone", *hex_bytes("01:02:45:57:de:3b:da"));
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
    const Table t = table("snapshot-neighbours.tsv");
    EXPECT_EQ(shown(neighbours_snapshot(t.neighbours, lans())), t.shown);
}

}  // namespace
