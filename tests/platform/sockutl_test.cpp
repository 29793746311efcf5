#include "nk/sockutl.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <netpacket/packet.h>

#include <memory>
#include <unordered_set>

#include <gtest/gtest.h>

namespace {

using nk::sockutl::address;
using nk::sockutl::macaddr;

TEST(MacAddr, ParsesTextForms) {
    const std::array<std::uint8_t, 6> expected = {0xaa, 0xbb, 0x0c, 0xdd, 0xee, 0x0f};
    for (const char* text :
         {"aa:bb:0c:dd:ee:0f", "AA:BB:0C:DD:EE:0F", "aa-bb-0c-dd-ee-0f", "Aa-bB-0C-dD-Ee-0f"}) {
        SCOPED_TRACE(text);
        const macaddr mac(text);
        EXPECT_EQ(mac.bytes(), expected);
        EXPECT_TRUE(macaddr::parse(text).has_value());
    }
}

TEST(MacAddr, RejectsMalformedText) {
    for (const char* text : {
             "",
             "aa:bb:cc:dd:ee",        // short
             "aa:bb:cc:dd:ee:f",      // one digit short
             "aa:bb:cc:dd:ee:ff:00",  // long
             "aa:bb:cc:dd:ee:ff ",    // trailing text
             " aa:bb:cc:dd:ee:ff",    // leading text
             "aa:bb:cc:dd:ee:fg",     // bad digit
             "aa:bb-cc:dd:ee:ff",     // mixed separators
             "aa.bb.cc.dd.ee.ff",     // unknown separator
             "aabb:cc:dd:ee:ff:0",    // separator misplaced
             "aabbccddeeff",          // no separators
             "+a:bb:cc:dd:ee:ff",     // sign is not a digit
         }) {
        SCOPED_TRACE(text);
        EXPECT_FALSE(macaddr::parse(text).has_value());
        EXPECT_EQ(macaddr(text), macaddr());
        EXPECT_FALSE(macaddr(text).is_valid());
    }
    EXPECT_FALSE(macaddr(static_cast<const char*>(nullptr)).is_valid());
    // An embedded NUL must not let the prefix pass.
    EXPECT_FALSE(macaddr(std::string("aa:bb:cc:dd:ee:f\0", 17)).is_valid());
}

TEST(MacAddr, ValidityAndText) {
    EXPECT_FALSE(macaddr("00:00:00:00:00:00").is_valid());
    EXPECT_FALSE(macaddr("ff:ff:ff:ff:ff:ff").is_valid());
    EXPECT_TRUE(macaddr("ff:ff:ff:ff:ff:fe").is_valid());
    EXPECT_TRUE(macaddr("00:00:00:00:00:01").is_valid());

    const macaddr mac("0A-1b-2C-3d-4E-5f");
    EXPECT_EQ(mac.to_string(), "0a:1b:2c:3d:4e:5f");
    EXPECT_EQ(mac.to_string(true), "0A:1B:2C:3D:4E:5F");
    EXPECT_EQ(mac.to_cloud_string(), "0a:1b:2c:3d:4e:5f");
    EXPECT_EQ(mac.to_cloud_string(true), "0A:1B:2C:3D:4E:5F");
    EXPECT_EQ(mac.get_hash(48), "0a1b2c3d4e5f");
    EXPECT_EQ(mac.get_hash(), "0a1b2c3d4e5f");
    EXPECT_EQ(mac.get_hash(24), "0a1b2c");
    EXPECT_EQ(mac.get_hash(64), "0a1b2c3d4e5f");
    EXPECT_EQ(mac.get_hash(0), "");
    EXPECT_EQ(fmt::format("{}", mac), "0a:1b:2c:3d:4e:5f");
    EXPECT_EQ(macaddr(mac.to_string()), mac);
}

TEST(MacAddr, FromBufferViewTakesSixBytesFromPosition) {
    const std::uint8_t raw[] = {0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08};
    EXPECT_EQ(macaddr(nk::buffer_view(raw, 6)).to_string(), "01:02:03:04:05:06");
    EXPECT_EQ(macaddr(nk::buffer_view(raw, 8)).to_string(), "01:02:03:04:05:06");

    nk::buffer_view view(raw, sizeof(raw));
    view.pos = 2;
    EXPECT_EQ(macaddr(view).to_string(), "03:04:05:06:07:08");
    view.pos = 3;
    EXPECT_EQ(macaddr(view), macaddr());

    for (std::uint32_t len = 0; len < 6; ++len) {
        SCOPED_TRACE(len);
        EXPECT_EQ(macaddr(nk::buffer_view(raw, len)), macaddr());
    }
    macaddr assigned("aa:aa:aa:aa:aa:aa");
    assigned = nk::buffer_view(raw, 5);
    EXPECT_EQ(assigned, macaddr());
}

TEST(MacAddr, FromLinkLayerAddress) {
    sockaddr_ll link{};
    link.sll_family = AF_PACKET;
    const std::uint8_t bytes[] = {0x02, 0x42, 0xac, 0x11, 0x00, 0x02, 0x99, 0x99};
    std::memcpy(link.sll_addr, bytes, sizeof(bytes));
    link.sll_halen = 6;
    EXPECT_EQ(macaddr(link).to_string(), "02:42:ac:11:00:02");
    link.sll_halen = 8;  // e.g. an InfiniBand-style address is not a MAC
    EXPECT_EQ(macaddr(link), macaddr());
    link.sll_halen = 0;
    EXPECT_EQ(macaddr(link), macaddr());
}

TEST(Address, ParsesBothFamilies) {
    struct Case {
        const char* text;
        int family;
        const char* canonical;
    };
    for (const Case& c : {
             Case{"192.168.1.10", AF_INET, "192.168.1.10"}, Case{"0.0.0.0", AF_INET, "0.0.0.0"},
             Case{"255.255.255.255", AF_INET, "255.255.255.255"}, Case{"::", AF_INET6, "::"},
             Case{"::1", AF_INET6, "::1"}, Case{"2001:DB8:0:0:0:0:0:1", AF_INET6, "2001:db8::1"},
             Case{"fe80::1%eth0", AF_INET6, "fe80::1"}, Case{"fe80::1%3", AF_INET6, "fe80::1"},
             Case{"::ffff:192.0.2.1", AF_INET6, "::ffff:192.0.2.1"},  // v4-mapped stays v6
         }) {
        SCOPED_TRACE(c.text);
        const auto ip = address::parse(c.text);
        ASSERT_TRUE(ip.has_value());
        EXPECT_EQ(ip->family(), c.family);
        EXPECT_EQ(ip->to_string(), c.canonical);
        EXPECT_EQ(fmt::format("{}", *ip), c.canonical);
        EXPECT_EQ(address(c.text), *ip);
        EXPECT_EQ(address(ip->to_string()), *ip);
    }
}

TEST(Address, RejectsMalformedText) {
    for (const char* text : {
             "",
             "1.2.3",              // short
             "1.2.3.4.5",          // long
             "256.1.1.1",          // octet out of range
             "1.2.3.4 ",           // trailing text
             "1.2.3.4/24",         // prefix is not part of an address
             "01.2.3.4",           // leading zero
             "1.2.3.4%eth0",       // zone on IPv4
             "fe80::1%",           // empty zone
             "fe80::1%eth0%eth1",  // two zones
             "fe80::1%averyveryverylongname",
             "2001:db8::g",  // bad digit
             "1:2:3:4:5:6:7:8:9",
             "localhost",
         }) {
        SCOPED_TRACE(text);
        EXPECT_FALSE(address::parse(text).has_value());
        const address ip(text);
        EXPECT_FALSE(ip.is_v4_or_v6());
        EXPECT_EQ(ip.size(), 0u);
        EXPECT_EQ(ip.to_string(), "");
    }
    EXPECT_FALSE(address(std::string("1.2.3.4\0.5", 10)).is_v4_or_v6());
    EXPECT_FALSE(address(static_cast<const char*>(nullptr)).is_v4_or_v6());
}

TEST(Address, LinkLocalEdges) {
    struct Case {
        const char* text;
        bool link_local;
    };
    for (const Case& c : {
             Case{"169.254.0.0", true}, Case{"169.254.255.255", true},
             Case{"169.253.255.255", false}, Case{"169.255.0.0", false}, Case{"fe80::", true},
             Case{"febf:ffff::1", true},  // last of fe80::/10
             Case{"fec0::1", false},      // just past it
             Case{"fe7f::1", false},
             Case{"::ffff:169.254.1.1", false},  // v4-mapped is an IPv6 address
         }) {
        SCOPED_TRACE(c.text);
        EXPECT_EQ(address(c.text).is_link_local(), c.link_local);
    }
    EXPECT_FALSE(address().is_link_local());
}

TEST(Address, NetmaskAndPrefix) {
    struct Case {
        int family;
        int prefix;
        const char* mask;
    };
    for (const Case& c : {
             Case{AF_INET, 0, "0.0.0.0"},
             Case{AF_INET, 1, "128.0.0.0"},
             Case{AF_INET, 23, "255.255.254.0"},
             Case{AF_INET, 24, "255.255.255.0"},
             Case{AF_INET, 31, "255.255.255.254"},
             Case{AF_INET, 32, "255.255.255.255"},
             Case{AF_INET6, 0, "::"},
             Case{AF_INET6, 10, "ffc0::"},
             Case{AF_INET6, 64, "ffff:ffff:ffff:ffff::"},
             Case{AF_INET6, 127, "ffff:ffff:ffff:ffff:ffff:ffff:ffff:fffe"},
             Case{AF_INET6, 128, "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff"},
         }) {
        SCOPED_TRACE(c.mask);
        const auto mask = address::netmask(c.family, c.prefix);
        ASSERT_TRUE(mask.has_value());
        EXPECT_EQ(mask->to_string(), c.mask);
        EXPECT_EQ(mask->to_prefix(), c.prefix);
    }
    EXPECT_FALSE(address::netmask(AF_INET, -1));
    EXPECT_FALSE(address::netmask(AF_INET, 33));
    EXPECT_FALSE(address::netmask(AF_INET6, 129));
    EXPECT_FALSE(address::netmask(AF_UNSPEC, 0));
    // A mask with a hole counts only its leading ones.
    EXPECT_EQ(address("255.0.255.0").to_prefix(), 8);
    EXPECT_EQ(address("ffff:0:ffff::").to_prefix(), 16);
    EXPECT_EQ(address().to_prefix(), 0);
}

TEST(Address, SubnetMembership) {
    struct Case {
        const char* ip;
        const char* net;
        const char* mask;
        bool inside;
    };
    for (const Case& c : {
             Case{"192.168.1.77", "192.168.1.0", "255.255.255.0", true},
             Case{"192.168.2.1", "192.168.1.0", "255.255.255.0", false},
             Case{"192.168.1.77", "192.168.1.99", "255.255.255.0", true},  // host bits ignored
             Case{"10.1.2.3", "0.0.0.0", "0.0.0.0", true},                 // /0 holds all
             Case{"10.1.2.3", "10.1.2.3", "255.255.255.255", true},
             Case{"10.1.2.4", "10.1.2.3", "255.255.255.255", false},
             Case{"10.0.1.1", "10.0.0.0", "255.255.254.0", true},
             Case{"10.0.2.1", "10.0.0.0", "255.255.254.0", false},
             Case{"2001:db8::5", "2001:db8::", "ffff:ffff::", true},
             Case{"2001:db9::5", "2001:db8::", "ffff:ffff::", false},
             Case{"2001:db8::5", "2001:db8::5", "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff", true},
             Case{"2001:db8::6", "2001:db8::5", "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff", false},
             Case{"::ffff:10.0.0.1", "10.0.0.0", "255.0.0.0", false},  // families differ
             Case{"10.0.0.1", "::", "::", false},
             Case{"10.0.0.1", "10.0.0.0", "ff00::", false},
         }) {
        SCOPED_TRACE(std::string(c.ip) + " in " + c.net + "/" + c.mask);
        EXPECT_EQ(address(c.ip).is_in_subnet(address(c.net), address(c.mask)), c.inside);
    }
    EXPECT_FALSE(address().is_in_subnet(address(), address()));
}

TEST(Address, EqualityOrderAndHash) {
    const address v4("1.2.3.4");
    const address v6("102:304::");  // the same leading bytes as v4
    EXPECT_NE(v4, v6);
    EXPECT_LT(v4, v6);  // family first
    EXPECT_LT(address("1.2.3.4"), address("1.2.3.5"));
    EXPECT_FALSE(address("1.2.3.5") < address("1.2.3.4"));
    EXPECT_LT(address("9.0.0.0"), address("10.0.0.0"));  // bytes, not text
    EXPECT_EQ(address("fe80::1%eth0"), address("fe80::1"));
    EXPECT_EQ(v4.hash(true), address("1.2.3.4").hash(true));
    const std::unordered_set<address> set = {v4, v6, address("1.2.3.4"), address()};
    EXPECT_EQ(set.size(), 3u);
}

TEST(Address, LoopbackFromGetifaddrs) {
    ifaddrs* list = nullptr;
    ASSERT_EQ(::getifaddrs(&list), 0);
    const std::unique_ptr<ifaddrs, decltype(&::freeifaddrs)> owner(list, &::freeifaddrs);
    bool seen = false;
    for (const ifaddrs* it = list; it != nullptr; it = it->ifa_next) {
        if (it->ifa_addr == nullptr || it->ifa_addr->sa_family != AF_INET)
            continue;
        if (std::string(it->ifa_name) != "lo")
            continue;
        const address ip(it->ifa_addr);
        const address mask(it->ifa_netmask);
        EXPECT_EQ(ip, address("127.0.0.1"));
        EXPECT_EQ(mask.to_prefix(), 8);
        EXPECT_TRUE(address("127.9.9.9").is_in_subnet(ip, mask));
        seen = true;
    }
    EXPECT_TRUE(seen);
}

}  // namespace
