// The MAC-IP map: what it accepts, what it filters, when two maps are equal.
#include "macips.h"

#include <gtest/gtest.h>

namespace {

using nk::ip_set;
using nk::macips_t;
using nk::sockutl::address;
using nk::sockutl::macaddr;

const macaddr kMac1("02:00:00:00:00:01");
const macaddr kMac2("02:00:00:00:00:02");
const address kV4("192.168.1.10");
const address kV4LinkLocal("169.254.3.4");
const address kGlobal6("2001:db8::10");
const address kLinkLocal6("fe80::10");

TEST(MacIps, AddAndClear) {
    macips_t map;
    EXPECT_TRUE(map.add_ip(kMac1, kV4));
    EXPECT_FALSE(map.add_ip(kMac1, kV4));
    EXPECT_TRUE(map.add_ip(kMac2, kV4));
    EXPECT_FALSE(map.add_mac(kMac1));

    // Clearing forgets the addresses; the MAC stays known.
    EXPECT_TRUE(map.clear_mac(kMac1));
    EXPECT_TRUE(map.has_mac(kMac1));
    EXPECT_TRUE(map.get_ips(kMac1, true).empty());
    EXPECT_FALSE(map.clear_mac(macaddr("02:00:00:00:00:99")));
}

TEST(MacIps, RefusesInvalidMacsAndAddresses) {
    const std::pair<macaddr, address> cases[] = {
        {macaddr("00:00:00:00:00:00"), kV4},
        {macaddr("ff:ff:ff:ff:ff:ff"), kV4},
        {kMac1, address()},
        {kMac1, address("300.1.1.1")},
    };
    for (const auto& [mac, ip] : cases) {
        macips_t map;
        EXPECT_FALSE(map.add_ip(mac, ip)) << mac.to_string() << " " << ip.to_string();
        EXPECT_TRUE(map.macs.empty() && map.ips.empty());
    }
    macips_t map;
    EXPECT_FALSE(map.add_mac(macaddr("ff:ff:ff:ff:ff:ff")));
}

TEST(MacIps, LinkLocalFiltering) {
    macips_t map;
    for (const address& ip : {kV4, kV4LinkLocal, kGlobal6, kLinkLocal6})
        ASSERT_TRUE(map.add_ip(kMac1, ip));
    map.add_ip(kMac2, kV4);

    EXPECT_EQ(map.get_ips(kMac1, false), (ip_set{kV4, kV4LinkLocal, kGlobal6}));
    EXPECT_EQ(map.get_ips(kMac1, true).size(), 4u);
    EXPECT_EQ(map.ips6(kMac1, false), ip_set{kGlobal6});
    EXPECT_EQ(map.ipll(kMac1), ip_set{kLinkLocal6});
    EXPECT_TRUE(map.ipll(kMac2).empty());
}

TEST(MacIps, EqualityIgnoresInsertionOrder) {
    macips_t a;
    a.add_ip(kMac1, kV4);
    a.add_ip(kMac1, kGlobal6);
    a.add_ip(kMac2, kLinkLocal6);
    macips_t b;
    b.add_ip(kMac2, kLinkLocal6);
    b.add_ip(kMac1, kGlobal6);
    b.add_ip(kMac1, kV4);
    EXPECT_EQ(a, b);

    b.clear_mac(kMac2);
    EXPECT_NE(a, b);
}

}  // namespace
