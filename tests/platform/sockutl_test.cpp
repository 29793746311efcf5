// MAC and IP addresses from text, bytes and sockets; the bounds-checked reader under them.
#include "nk/sockutl.h"

#include <netinet/in.h>
#include <netpacket/packet.h>

#include <unordered_set>

#include <gtest/gtest.h>

#include "nk/buffer_view.h"
#include "tables.h"

namespace {

using nk::buffer_view;
using nk::sockutl::address;
using nk::sockutl::macaddr;

nk::test::Table cases(const char* name) {
    return {NK_TEST_DATA "/sockutl.json", name};
}

TEST(MacAddr, TextForms) {
    const std::array<std::uint8_t, 6> expected = {0xaa, 0xbb, 0x0c, 0xdd, 0xee, 0x0f};
    for (const auto& row : cases("mac_good")) {
        SCOPED_TRACE(row.text());
        EXPECT_EQ(macaddr(row.str()).bytes(), expected);
        EXPECT_TRUE(macaddr::parse(row.str()));
    }
    for (const auto& row : cases("mac_bad")) {
        SCOPED_TRACE(row.text());
        EXPECT_FALSE(macaddr::parse(row.str()));
        EXPECT_EQ(macaddr(row.str()), macaddr());
    }
    for (const auto& row : cases("mac_valid"))
        EXPECT_EQ(macaddr(row.str("mac")).is_valid(), row.flag("valid")) << row.text();

    const macaddr mac("0A-1b-2C-3d-4E-5f");
    EXPECT_EQ(fmt::format("{}", mac), "0a:1b:2c:3d:4e:5f");
    EXPECT_EQ(mac.to_cloud_string(true), "0A:1B:2C:3D:4E:5F");
    EXPECT_EQ(mac.get_hash(), "0a1b2c3d4e5f");
    for (const auto& row : cases("mac_hash"))
        EXPECT_EQ(mac.get_hash(row.num("bits")), row.str("hash")) << row.text();
}

TEST(MacAddr, SixBytesFromABufferOrALinkAddress) {
    const std::uint8_t raw[] = {0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08};
    EXPECT_EQ(macaddr(buffer_view(raw, 8)).to_string(), "01:02:03:04:05:06");
    buffer_view view(raw, sizeof(raw));
    view.pos = 2;
    EXPECT_EQ(macaddr(view).to_string(), "03:04:05:06:07:08");
    view.pos = 3;
    EXPECT_EQ(macaddr(view), macaddr());
    EXPECT_EQ(macaddr(buffer_view(raw, 5)), macaddr());

    sockaddr_ll link{};
    std::memcpy(link.sll_addr, raw, sizeof(raw));
    for (const unsigned char len : {0, 6, 8}) {
        link.sll_halen = len;
        EXPECT_EQ(macaddr(link).to_string(), len == 6 ? "01:02:03:04:05:06" : "00:00:00:00:00:00")
            << +len;
    }
}

TEST(Address, TextForms) {
    for (const auto& row : cases("address_good")) {
        SCOPED_TRACE(row.text());
        const auto ip = address::parse(row.str("text"));
        ASSERT_TRUE(ip);
        EXPECT_EQ(ip->family(), row.flag("v6") ? AF_INET6 : AF_INET);
        EXPECT_EQ(fmt::format("{}", *ip), row.str("canonical"));
        EXPECT_EQ(address(ip->to_string()), *ip);
    }
    for (const auto& row : cases("address_bad")) {
        SCOPED_TRACE(row.text());
        EXPECT_FALSE(address::parse(row.str()));
        const address ip(row.str());
        EXPECT_FALSE(ip.is_v4_or_v6());
        EXPECT_EQ(ip.size(), 0u);
        EXPECT_EQ(ip.to_string(), "");
    }
}

TEST(Address, LinkLocalEdges) {
    for (const auto& row : cases("link_local"))
        EXPECT_EQ(address(row.str("ip")).is_link_local(), row.flag("yes")) << row.text();
    EXPECT_FALSE(address().is_link_local());
}

TEST(Address, Netmasks) {
    for (const auto& row : cases("netmask")) {
        SCOPED_TRACE(row.text());
        const auto mask = address::netmask(row.flag("v6") ? AF_INET6 : AF_INET, row.num("prefix"));
        ASSERT_EQ(mask.has_value(), row.has("mask"));
        if (mask) {
            EXPECT_EQ(mask->to_string(), row.str("mask"));
            EXPECT_EQ(mask->to_prefix(), row.num("prefix"));
        }
    }
    EXPECT_FALSE(address::netmask(AF_UNSPEC, 0));
    for (const auto& row : cases("mask_with_hole"))
        EXPECT_EQ(address(row.str("mask")).to_prefix(), row.num("prefix")) << row.text();
}

TEST(Address, SubnetMembership) {
    for (const auto& row : cases("subnet")) {
        EXPECT_EQ(
            address(row.str("ip")).is_in_subnet(address(row.str("net")), address(row.str("mask"))),
            row.flag("in"))
            << row.text();
    }
}

TEST(Address, EqualityOrderAndHash) {
    const address v4("1.2.3.4");
    const address v6("102:304::");  // the same leading bytes as v4
    EXPECT_LT(v4, v6);              // family first
    EXPECT_FALSE(address("1.2.3.5") < address("1.2.3.4"));
    EXPECT_LT(address("9.0.0.0"), address("10.0.0.0"));  // bytes, not text
    EXPECT_EQ(address("fe80::1%eth0"), address("fe80::1"));
    const std::unordered_set<address> set = {v4, v6, address("1.2.3.4"), address()};
    EXPECT_EQ(set.size(), 3u);
}

TEST(Address, FromSocketAddresses) {
    sockaddr_in v4{};
    v4.sin_family = AF_INET;
    v4.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    sockaddr_in6 v6{};
    v6.sin6_family = AF_INET6;
    v6.sin6_addr = in6addr_loopback;
    EXPECT_EQ(address(reinterpret_cast<sockaddr*>(&v4)), address("127.0.0.1"));
    EXPECT_EQ(address(reinterpret_cast<sockaddr*>(&v6)), address("::1"));
    v6.sin6_family = AF_UNIX;
    EXPECT_FALSE(address(reinterpret_cast<sockaddr*>(&v6)).is_v4_or_v6());
}

TEST(BufferView, ReadsStopExactlyAtTheEnd) {
    const std::uint8_t raw[] = {0x11, 0x22, 0x33, 0x44, 0x55};
    buffer_view view(raw, sizeof(raw));
    EXPECT_EQ(view.read<std::uint8_t>(), 0x11);
    std::uint16_t word = 0;
    std::memcpy(&word, raw + 1, sizeof(word));
    EXPECT_EQ(view.read<std::uint16_t>(), word);
    view.pos = 4;  // one byte short: the read fails and consumes nothing
    EXPECT_FALSE(view.read<std::uint16_t>());
    EXPECT_EQ(view.read<std::uint8_t>(), 0x55);
    EXPECT_FALSE(view.read<std::uint8_t>());

    buffer_view text("abcdef", 6);
    EXPECT_EQ(std::string(*text.readn<char>(4), 4), "abcd");
    EXPECT_FALSE(text.readn<char>(3));
    EXPECT_EQ(text.pos, 4u);
    EXPECT_TRUE(text.readn<char>(0));
    EXPECT_EQ((*text.readn<unsigned char>(2))[1], 'f');
    // At the end even an empty read fails, so a zero-length field cannot loop forever.
    EXPECT_FALSE(text.readn<char>(0));
}

}  // namespace
