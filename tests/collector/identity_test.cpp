// Which earlier device a new MAC is: the rules on a table of evidence (data/identity_rules.json),
// and whether an earlier MAC is still on the LAN, from the neighbour table and the leases.
#include <gtest/gtest.h>
#include <linux/neighbour.h>

#include <map>
#include <sstream>
#include <string>

#include <nk/setmgmt.h>

#include "host_names.h"
#include "identity_rules.h"
#include "lease.h"
#include "lease_file.h"
#include "presence.h"
#include "tables.h"
#include "temp_dir.h"

namespace {

using namespace nk::collector;
using nk::sockutl::address;
using nk::sockutl::macaddr;
using nk::test::Row;

// A member's text; {"repeat": UNIT, "times": N} stands for a long one.
std::string text(const Row& row, const char* key) {
    const Row value(row.get(key));
    std::string out = value.str();
    for (long long i = 0; i < value.num("times"); ++i)
        out += value.str("repeat");
    return out;
}

std::vector<std::string> ids(const Row& row) {
    std::vector<std::string> out;
    for (const std::string& id : row.strs("ids"))
        out.push_back(*hex_bytes(id));
    return out;
}

DhcpFingerprint fingerprint(const Row& row) {
    return {text(row, "options"), text(row, "vendor")};
}

ClientHistory history_of(const nk::test::Table& known) {
    ClientHistory history;
    for (const Row& c : known) {
        const macaddr mac(c.str("mac"));
        history.add(mac, 0);
        history.learn(mac,
                      {ids(c), distinctive_name(text(c, "host")), distinctive_name(text(c, "mdns")),
                       fingerprint(c)},
                      0);
        for (const std::string& alias : c.strs("aliases"))
            history.add_alias(mac, macaddr(alias));
    }
    return history;
}

std::string shown(const Verdict& v) {
    return v.kind == Verdict::Kind::Same   ? "same " + v.device.to_string()
           : v.kind == Verdict::Kind::Wait ? "wait"
                                           : "new";
}

TEST(IdentityRules, Table) {
    const std::string rules = NK_COLLECTOR_DATA "/identity_rules.json";
    const ClientHistory history = history_of(nk::test::Table(rules, "known"));
    for (const Row& row : nk::test::Table(rules, "cases")) {
        SCOPED_TRACE(row.str("case"));
        const std::string mac = row.str("mac");
        const Sighting s{macaddr(mac.empty() ? "02:45:57:de:3b:da" : mac),
                         ids(row),
                         distinctive_name(text(row, "host")),
                         distinctive_name(text(row, "mdns")),
                         fingerprint(row),
                         row.flag("pending")};
        const Row present(row.get("present"));
        const Verdict v = judge(s, history, [&](const macaddr& earlier) {
            const std::string p = present.str(earlier.to_string().c_str());
            return p == "here"      ? Presence::Here
                   : p == "unknown" ? Presence::Unknown
                                    : Presence::Gone;
        });
        EXPECT_EQ(shown(v), row.str("expect")) << v.why;
        EXPECT_NE(v.why.find(row.str("why")), std::string::npos) << v.why;
    }
}

TEST(Presence, FromTheNeighbourTableAndTheLeases) {
    using Clock = PresenceCheck::Clock;
    const macaddr phone("00:00:5e:00:53:10");
    const Clock::time_point since = Clock::now();
    const std::map<std::string, Clock::time_point> times{
        {"before", since - std::chrono::seconds(5)}, {"after", since + std::chrono::seconds(1)}};
    const std::map<std::string, macaddr> macs{
        {"phone", phone}, {"other", macaddr("00:00:5e:00:53:20")}, {"none", macaddr()}};
    const std::map<std::string, int> states{
        {"reachable", NUD_REACHABLE}, {"stale", NUD_STALE}, {"failed", NUD_FAILED}};
    const std::map<std::string, Presence> presences{
        {"here", Presence::Here}, {"unknown", Presence::Unknown}, {"gone", Presence::Gone}};
    const LanInterfaces lans = {{"br-lan",
                                 false,
                                 macaddr("02:00:00:00:01:01"),
                                 {{address("198.51.100.1"), *address::netmask(AF_INET, 24)}}}};
    for (const auto& row : nk::test::read_table(NK_COLLECTOR_DATA "/presence.tsv")) {
        SCOPED_TRACE(row[0]);
        std::vector<Lease> leases;
        if (row[1] == "yes")
            leases.push_back({phone, address("198.51.100.150"), "", ""});
        std::vector<Neighbour> neighbours;
        std::istringstream entry(row[2]);
        std::string mac, state, confirmed, updated;
        if (entry >> mac >> state >> confirmed >> updated) {
            neighbours.push_back({"br-lan", address("198.51.100.150"), macs.at(mac),
                                  static_cast<std::uint16_t>(states.at(state)), times.at(confirmed),
                                  times.at(updated)});
        }
        std::vector<ProbeTarget> probes;
        EXPECT_EQ(PresenceCheck(neighbours, leases, lans).since(phone, since, probes),
                  presences.at(row[3]));
        EXPECT_EQ(probes.size(), std::stoul(row[4]));
    }
}

// The history survives restarts, is read from the former key, keeps the most recently seen
// clients, and is written only when it changed.
TEST(ClientHistoryStore, KeptBoundedAndWrittenOnlyWhenChanged) {
    nk::test::TempDir dir;
    const nk::test::ScopedEnv settings("NK_SETTINGS_DIR", dir.path());
    ASSERT_EQ(nk::setMgmt::init(), 0);
    const std::string duid = *hex_bytes("00:03:00:01:00:00:5e:00:53:59");
    ASSERT_EQ(nk::setMgmt::setKey(kClientMacsKey,
                                  R"({"00:03:00:01:00:00:5e:00:53:59":"00:00:5e:00:53:59"})"),
              0);
    ClientHistory history;
    history.load(1000);
    ASSERT_NE(history.find_id(duid), nullptr);
    EXPECT_EQ(history.find_id(duid)->mac, macaddr("00:00:5e:00:53:59"));

    history.add_alias(macaddr("00:00:5e:00:53:59"), macaddr("02:45:57:de:3b:da"));
    history.learn(macaddr("00:00:5e:00:53:59"),
                  {{}, "lucas-iphone", "", {"1,121,3,6,15,119,252", "\x01\xff"}}, 1000);
    history.save();
    ClientHistory restarted;
    restarted.load(1000);
    const KnownClient* phone = restarted.find(macaddr("02:45:57:de:3b:da"));
    ASSERT_NE(phone, nullptr);
    EXPECT_EQ(phone->mac, macaddr("00:00:5e:00:53:59"));
    EXPECT_EQ(phone->host, "lucas-iphone");
    EXPECT_EQ(phone->fingerprint.vendor, "\x01\xff");
    EXPECT_EQ(restarted.find_id(duid), phone);

    // Nothing new: nothing written. A day later, or a new name: written.
    ASSERT_EQ(nk::setMgmt::deleteKey(kClientsKey), 0);
    restarted.learn(phone->mac, {{duid}, "lucas-iphone", "", {}}, 2000);
    restarted.save();
    EXPECT_EQ(nk::setMgmt::getKeyValue(std::string(kClientsKey), ""), "");
    restarted.learn(phone->mac, {{}, "", "", {}}, 1000 + 24 * 3600);
    restarted.save();
    EXPECT_NE(nk::setMgmt::getKeyValue(std::string(kClientsKey), ""), "");

    // Full: the client seen longest ago makes room.
    for (std::size_t i = 1; i < ClientHistory::kMaxClients; ++i) {
        std::array<std::uint8_t, 6> bytes{
            0, 0, 0x5e, 1, static_cast<std::uint8_t>(i >> 8), static_cast<std::uint8_t>(i)};
        restarted.add(macaddr(bytes), 5000 + static_cast<std::int64_t>(i));
    }
    EXPECT_EQ(restarted.clients().size(), ClientHistory::kMaxClients);
    restarted.add(macaddr("00:00:5e:00:53:60"), 9000);
    EXPECT_EQ(restarted.clients().size(), ClientHistory::kMaxClients);
    EXPECT_EQ(restarted.find(macaddr("00:00:5e:01:00:01")), nullptr);
    EXPECT_NE(restarted.find(macaddr("00:00:5e:01:00:02")), nullptr);
    EXPECT_NE(restarted.find(macaddr("02:45:57:de:3b:da")), nullptr);
    nk::setMgmt::uninit();
}

}  // namespace
