// The DHCP readers on the messages of real clients (checked against tshark's reading of the same
// packets), on every prefix of them, and on the malformed and odd messages they must reject or
// read in their own way (data/dhcp_edge_cases.jsonl).
#include <gtest/gtest.h>

#include <algorithm>
#include <optional>
#include <set>

#include <fmt/format.h>
#include <nk/log.h>

#include "nkdhcpparser.h"
#include "stderr_capture.h"
#include "test_data.h"

namespace {

using Bytes = std::vector<std::uint8_t>;
using nk::sockutl::macaddr;
using nk::test::from_hex;
using nk::test::Row;

const macaddr kFrameMac("02:aa:bb:cc:dd:01");

// The DHCP message of a captured datagram, without its UDP header.
Bytes dhcp_of(const Row& packet) {
    const Bytes udp = from_hex(packet.str("udp"));
    return Bytes(udp.begin() + 8, udp.end());
}

struct Outcome {
    bool ok = false;
    nk::DhcpResult result;
    std::string log;
    bool threw = false;
};

// Parses a copy of exactly these bytes, so that ASan sees any read past them.
Outcome parse(bool v6, const Bytes& message, const macaddr& frame_mac = kFrameMac) {
    const std::vector<std::uint8_t> copy(message);
    nk::buffer_view view(copy.data(), static_cast<std::uint32_t>(copy.size()));
    Outcome out;
    nk::test::StderrCapture capture;
    try {
        out.ok = v6 ? nk::parse_dhcpv6_message(view, frame_mac, out.result)
                    : nk::parse_dhcpv4_message(view, frame_mac, out.result);
    } catch (const std::bad_optional_access&) {
        out.threw = true;
    }
    out.log = capture.text();
    return out;
}

// Rejection lines are errors or warnings; the level-3 skips are traced too.
class DhcpParserTest : public ::testing::Test {
protected:
    void SetUp() override { nk::log::set_level(nk::log::DEBUG); }
    void TearDown() override { nk::log::set_level(nk::log::INFO); }
};

void expect_reading(const Outcome& out, const Row& expected, const macaddr& mac) {
    const nk::DhcpFingerprint& fp = out.result.fingerprint;
    EXPECT_EQ(fp.option_list, expected.str("option_list"));
    EXPECT_EQ(fp.vendor_class, expected.str("vendor_class"));
    EXPECT_EQ(fp.version, expected.flag("v6"));
    EXPECT_EQ(out.result.hostname, expected.str("hostname"));
    EXPECT_EQ(out.result.mac, mac);
}

// What the message means to the parsers: one of their client types, and something to report.
bool expected_ok(const Row& p) {
    static const std::set<std::string> v4 = {"Discover", "Request", "Decline", "Release", "Inform"};
    static const std::set<std::string> v6 = {"Solicit", "Request", "Renew", "Rebind"};
    const bool fingerprint = !p.str("option_list").empty() || !p.str("vendor_class").empty();
    return p.flag("v6")
               ? v6.count(p.str("message_type")) && (fingerprint || !p.str("hostname").empty())
               : v4.count(p.str("message_type")) && fingerprint;
}

// The options of a well-formed message as (offset, code, length) in message coordinates.
struct OptionAt {
    std::size_t at;
    unsigned code;
    std::size_t length;
};

std::vector<OptionAt> layout(bool v6, const Bytes& m) {
    std::vector<OptionAt> options;
    if (v6) {
        for (std::size_t at = 4; at + 4 <= m.size();) {
            const std::size_t length = m[at + 2] << 8 | m[at + 3];
            options.push_back({at, unsigned(m[at] << 8 | m[at + 1]), length});
            at += 4 + length;
        }
        return options;
    }
    for (std::size_t at = 240; at < m.size() && m[at] != 255;) {
        if (m[at] == 0) {
            ++at;
            continue;
        }
        options.push_back({at, m[at], m[at + 1]});
        at += 2 + m[at + 1];
    }
    return options;
}

// The one line (or success) expected of the first `size` bytes of a well-formed message.
std::optional<std::string> expected_line(bool v6, const Bytes& m, std::size_t size) {
    if (!v6 && size < 236)
        return fmt::format("Size {} smaller than minimum 236", size);
    if (!v6 && size < 240)
        return "magic_cookie not found";
    if (v6 && size == 0)
        return "Missing DHCP Message Type";
    if (v6 && m[0] != 1 && m[0] != 3 && m[0] != 5 && m[0] != 6)
        return fmt::format("Invalid DHCP Message Type {}", m[0]);
    if (v6 && size < 4)
        return "";  // the transaction id cut: rejected without a line
    bool type = v6, informative = false;
    for (const OptionAt& o : layout(v6, m)) {
        const std::size_t header = v6 ? 4 : 2;
        if (size > o.at && size < o.at + header) {
            return v6 ? fmt::format("Invalid size {} for an option", size - o.at)
                      : fmt::format("No data length byte after option tag {}", o.code);
        }
        if (size >= o.at + header && size < o.at + header + o.length) {
            return fmt::format(v6 ? "Invalid data after option code {}, of length {}"
                                  : "Invalid data after option tag {}, of length {}",
                               o.code, o.length);
        }
        if (size <= o.at)
            break;
        type |= o.code == 53;
        informative |=
            v6 ? (o.code == 6 || o.code == 16 || o.code == 39) : (o.code == 55 || o.code == 60);
    }
    if (!type)
        return "DHCP Message Type Option not found";
    if (!informative)
        return "Skipping empty";
    return std::nullopt;
}

// The whole message of a real client reads as tshark reads it; every prefix of it is rejected
// with its line.
TEST_F(DhcpParserTest, EveryPrefixOfARealPacketIsRejectedAndTheWholeReadAsTsharkReadsIt) {
    int prefixes = 0, accepted = 0;
    for (const Row& packet : nk::test::rows("dhcp_captures")) {
        const bool v6 = packet.flag("v6");
        const macaddr source(packet.str("source_mac"));
        const Bytes message = dhcp_of(packet);
        for (std::size_t size = 0; size <= message.size(); ++size, ++prefixes) {
            SCOPED_TRACE(fmt::format("{}, first {} bytes", packet.str("name"), size));
            const Outcome out = parse(v6, Bytes(message.begin(), message.begin() + size), source);
            EXPECT_FALSE(out.threw);
            if (size == message.size()) {
                ASSERT_EQ(out.ok, expected_ok(packet)) << out.log;
                accepted += out.ok;
                if (out.ok) {
                    expect_reading(out, packet, source);
                }
                continue;
            }
            const std::optional<std::string> line = expected_line(v6, message, size);
            ASSERT_EQ(out.ok, !line) << out.log;
            if (line && !line->empty()) {
                EXPECT_NE(out.log.find(*line), std::string::npos) << out.log;
            }
        }
    }
    EXPECT_GT(prefixes, 5000);
    EXPECT_GE(accepted, 14);
}

// A DHCPv4 row gives the options after a client request's fixed header and cookie; chaddr ""
// leaves it zero.
Bytes v4_message(const Row& row) {
    const Bytes options = from_hex(row.str("options"));
    const std::string chaddr = row.get("chaddr") ? row.str("chaddr") : "02:aa:bb:cc:dd:02";
    const std::string cookie = row.get("cookie") ? row.str("cookie") : "63825363";
    // Sized whole up front: GCC 12 at -O3 misreads a growing insert into a 240-byte vector.
    Bytes m(240 + options.size(), 0);
    m[0] = static_cast<std::uint8_t>(row.num("op", 1));
    m[1] = 1;
    m[2] = 6;
    if (!chaddr.empty())
        std::copy_n(macaddr(chaddr).bytes().begin(), 6, m.begin() + 28);
    const Bytes cookie_bytes = from_hex(cookie);
    std::copy(cookie_bytes.begin(), cookie_bytes.end(), m.begin() + 236);
    std::copy(options.begin(), options.end(), m.begin() + 240);
    return m;
}

void edge_cases(bool v6) {
    for (const Row& c : nk::test::rows("dhcp_edge_cases")) {
        if (c.flag("v6") != v6)
            continue;
        SCOPED_TRACE(c.str("what"));
        const Outcome out = parse(v6, v6 ? from_hex(c.str("message")) : v4_message(c));
        EXPECT_EQ(out.threw, c.flag("throws"));
        EXPECT_EQ(out.ok, c.flag("ok")) << out.log;
        EXPECT_NE(out.log.find(c.str("line")), std::string::npos) << out.log;
        if (c.flag("ok") && out.ok)
            expect_reading(out, c, macaddr(c.str("mac")));
    }
}

TEST_F(DhcpParserTest, Dhcpv4EdgeCases) {
    edge_cases(false);
}
TEST_F(DhcpParserTest, Dhcpv6EdgeCases) {
    edge_cases(true);
}

}  // namespace
