// The lease table read from and written to the collector's JSON.
#include "leases.h"

#include <gtest/gtest.h>

#include <nk/json.h>

namespace {

using nk::json_ptr;
using nk::leases::leases_t;
using nk::sockutl::address;
using nk::sockutl::macaddr;

const macaddr kMac1("02:00:00:00:00:01");
const macaddr kMac2("02:00:00:00:00:02");
const macaddr kMac3("02:00:00:00:00:03");
const macaddr kMac4("02:00:00:00:00:04");

json_ptr parse(const char* text) {
    json_ptr json(json_loads(text, 0, nullptr));
    EXPECT_TRUE(json) << text;
    return json;
}

leases_t read(const char* text) {
    leases_t table;
    const json_ptr json = parse(text);
    EXPECT_TRUE(table.from_json(json.get()));
    return table;
}

TEST(Leases, FromJsonSkipsBadElementsAndAccumulatesRepeatedMacs) {
    const leases_t table = read(R"([
        {"mac": "02:00:00:00:00:01", "ips": ["10.0.0.1"], "host": "", "iface": "br0"},
        {"mac": "02:00:00:00:00:02", "ips": ["10.0.0.2"], "host": "two"},
        {"mac": "02:00:00:00:00:03", "ips": ["bogus", 7], "host": "three", "iface": "br0"},
        {"mac": "02:00:00:00:00:04", "ips": [], "host": "four", "iface": "br1"},
        {"mac": "ff:ff:ff:ff:ff:ff", "ips": ["10.0.0.5"], "host": "bc", "iface": "br0"},
        42,
        {"mac": "02:00:00:00:00:01", "ips": ["fe80::1", "10.0.0.1"], "host": "one", "iface": "br2"}
    ])");

    EXPECT_EQ(table.macs.size(), 2u);
    EXPECT_EQ(table.get_ips(kMac1, true).size(), 2u);
    EXPECT_EQ(table.hosts.at(kMac1), "one");
    EXPECT_EQ(table.ifaces.at(kMac1), "br2");
    for (const macaddr& gone : {kMac2, kMac3}) {
        EXPECT_FALSE(table.has_mac(gone));
        EXPECT_EQ(table.hosts.count(gone), 0u);
        EXPECT_EQ(table.ifaces.count(gone), 0u);
    }
    EXPECT_TRUE(table.has_mac(kMac4));
    EXPECT_TRUE(table.get_ips(kMac4, true).empty());
    EXPECT_EQ(table.hosts.at(kMac4), "four");
    EXPECT_EQ(table.ifaces.at(kMac4), "br1");
}

TEST(Leases, FromJsonRefusesNonArraysAndKeepsTheTable) {
    leases_t table = read(R"([{"mac": "02:00:00:00:00:01", "ips": ["10.0.0.1"],
                               "host": "h", "iface": "br0"}])");
    const leases_t before = table;
    const json_ptr object = parse(R"({"mac": "02:00:00:00:00:02"})");
    EXPECT_FALSE(table.from_json(object.get()));
    EXPECT_FALSE(table.from_json(nullptr));
    EXPECT_EQ(table, before);
    EXPECT_EQ(table.hosts, before.hosts);
}

TEST(Leases, ToJsonWritesTheCollectorFormatAndReadsBack) {
    const leases_t one =
        read(R"([{"mac": "02:00:00:00:00:01", "ips": ["10.0.0.1"], "host": "h", "iface": "br0"}])");
    const json_ptr written = one.to_json();
    ASSERT_TRUE(written);
    EXPECT_EQ(nk::json_dump_compact(written.get()),
              R"([{"mac":"02:00:00:00:00:01","ips":["10.0.0.1"],"host":"h","iface":"br0"}])");

    leases_t table;
    table.add_one(kMac1, address("10.0.0.1"), "one", "br0");
    table.add_one(kMac1, address("fe80::1"), "one", "br0");
    table.add_one(kMac2, address("2001:db8::2"), "", "br1");
    table.add_mac(kMac3);  // no interface or host: not written
    leases_t back;
    ASSERT_TRUE(back.from_json(table.to_json().get()));
    EXPECT_EQ(back.get_ips(kMac1, true), table.get_ips(kMac1, true));
    EXPECT_EQ(back.hosts, table.hosts);
    EXPECT_EQ(back.hosts.at(kMac2), "*");
    EXPECT_EQ(back.ifaces, table.ifaces);
    EXPECT_FALSE(back.has_mac(kMac3));
}

TEST(Leases, SettersNeedAKnownMacAndAValue) {
    leases_t table;
    EXPECT_FALSE(table.add_one(kMac1, address("10.0.0.1"), "h", ""));
    EXPECT_FALSE(table.add_one(kMac1, address(), "h", "br0"));
    EXPECT_TRUE(table.macs.empty());
    EXPECT_FALSE(table.set_iface(kMac1, "br0"));

    ASSERT_TRUE(table.add_one(kMac1, address("10.0.0.1"), "h", "br0"));
    EXPECT_FALSE(table.add_one(kMac1, address("10.0.0.1"), "h", "br0"));
    EXPECT_TRUE(table.set_host(address("10.0.0.1"), "renamed"));
    EXPECT_FALSE(table.set_host(address("10.0.0.9"), "nobody"));
    EXPECT_EQ(table.hosts.at(kMac1), "renamed");

    EXPECT_TRUE(table.del_mac(kMac1));
    EXPECT_TRUE(table.macs.empty());
    EXPECT_TRUE(table.hosts.empty());
    EXPECT_TRUE(table.ifaces.empty());
}

TEST(Leases, MergeFillsOnlyMissingEntriesOfKnownMacs) {
    leases_t mine;
    mine.add_mac(kMac1);
    mine.add_one(kMac2, address("10.0.0.2"), "mine", "br0");
    leases_t theirs;
    theirs.add_one(kMac1, address("10.0.0.1"), "one", "br1");
    theirs.add_one(kMac2, address("10.0.0.2"), "theirs", "br9");
    theirs.add_one(kMac3, address("10.0.0.3"), "three", "br1");

    mine.merge(theirs);
    EXPECT_EQ(mine.hosts.at(kMac1), "one");
    EXPECT_EQ(mine.ifaces.at(kMac1), "br1");
    EXPECT_EQ(mine.hosts.at(kMac2), "mine");
    EXPECT_FALSE(mine.has_mac(kMac3));
}

}  // namespace
