// The DHCP readers on the messages of real clients (checked against tshark's reading of the same
// packets), on every prefix of them, and on the malformed and odd messages they must reject or
// read in their own way.
#include <gtest/gtest.h>

#include <cctype>
#include <cstdint>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include <fmt/format.h>
#include <nk/log.h>

#include "dhcp_captures.h"
#include "nkdhcpparser.h"
#include "stderr_capture.h"

namespace {

using Bytes = std::vector<std::uint8_t>;
using nk::sockutl::macaddr;
using nk::test::kCapturedDhcp;

const macaddr kFrameMac("02:aa:bb:cc:dd:01");
const macaddr kOtherMac("02:aa:bb:cc:dd:02");

Bytes from_hex(const std::string& hex) {
    Bytes out;
    for (std::size_t i = 0; i + 1 < hex.size(); i += 2)
        out.push_back(static_cast<std::uint8_t>(std::stoi(hex.substr(i, 2), nullptr, 16)));
    return out;
}

// The DHCP message of a captured datagram, without its UDP header.
Bytes dhcp_of(const nk::test::CapturedDhcp& packet) {
    const Bytes udp = from_hex(packet.udp);
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

// What the message means to the parsers: one of their client types, and something to report.
bool expected_ok(const nk::test::CapturedDhcp& p) {
    static const std::set<std::string> v4 = {"Discover", "Request", "Decline", "Release", "Inform"};
    static const std::set<std::string> v6 = {"Solicit", "Request", "Renew", "Rebind"};
    const bool fingerprint = *p.option_list || *p.vendor_class;
    return p.v6 ? v6.count(p.message_type) && (fingerprint || *p.hostname)
                : v4.count(p.message_type) && fingerprint;
}

std::string upper(std::string text) {
    for (char& c : text)
        c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    return text;
}

TEST_F(DhcpParserTest, RealClientsReadAsTsharkReadsThem) {
    int accepted = 0;
    for (const auto& packet : kCapturedDhcp) {
        SCOPED_TRACE(packet.name);
        const Outcome out = parse(packet.v6, dhcp_of(packet), macaddr(packet.source_mac));
        ASSERT_EQ(out.ok, expected_ok(packet)) << out.log;
        EXPECT_FALSE(out.threw);
        if (!out.ok) {
            EXPECT_TRUE(out.log.find("Skipping empty") != std::string::npos ||
                        out.log.find("Invalid DHCP Message Type") != std::string::npos)
                << out.log;
            continue;
        }
        ++accepted;
        const nk::DhcpFingerprint& fp = out.result.fingerprint;
        EXPECT_EQ(fp.option_list, packet.option_list);
        EXPECT_EQ(fp.vendor_class, packet.vendor_class);
        EXPECT_EQ(fp.version, packet.v6);
        EXPECT_EQ(out.result.hostname, packet.hostname);
        EXPECT_EQ(out.result.mac, macaddr(packet.source_mac));
        const std::string type =
            packet.v6 ? upper(packet.message_type) : std::string("DHCP ") + packet.message_type;
        // The MAC the packet claims shows as req_mac; DHCPv6 drops it for the frame's.
        const std::string claimed = *packet.client_mac ? packet.client_mac : "00:00:00:00:00:00";
        EXPECT_NE(out.log.find(fmt::format("Received {} from src_mac {}; req_mac: {};", type,
                                           packet.source_mac, claimed)),
                  std::string::npos)
            << out.log;
    }
    EXPECT_GE(accepted, 14);
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

TEST_F(DhcpParserTest, EveryPrefixOfARealPacketIsRejectedWithItsLine) {
    int prefixes = 0;
    for (const auto& packet : kCapturedDhcp) {
        const Bytes message = dhcp_of(packet);
        for (std::size_t size = 0; size < message.size(); ++size, ++prefixes) {
            SCOPED_TRACE(fmt::format("{}, first {} bytes", packet.name, size));
            const Outcome out = parse(packet.v6, Bytes(message.begin(), message.begin() + size));
            const std::optional<std::string> line = expected_line(packet.v6, message, size);
            EXPECT_FALSE(out.threw);
            ASSERT_EQ(out.ok, !line) << out.log;
            if (line && !line->empty()) {
                EXPECT_NE(out.log.find(*line), std::string::npos) << out.log;
            }
        }
    }
    EXPECT_GT(prefixes, 5000);
}

// A DHCPv4 client request: the fixed header with a chaddr, the cookie, then `options`.
Bytes v4(const Bytes& options, const macaddr& chaddr = kOtherMac, std::uint8_t op = 1) {
    // Sized whole up front: GCC 12 at -O3 misreads a growing insert into a 240-byte vector.
    Bytes m(240 + options.size(), 0);
    m[0] = op;
    m[1] = 1;
    m[2] = 6;
    for (std::size_t i = 0; i < 6; ++i)
        m[28 + i] = chaddr.bytes()[i];
    const std::uint8_t cookie[] = {0x63, 0x82, 0x53, 0x63};
    std::copy(cookie, cookie + 4, m.begin() + 236);
    std::copy(options.begin(), options.end(), m.begin() + 240);
    return m;
}

Bytes operator+(Bytes a, const Bytes& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

const Bytes kDiscover = {53, 1, 1};
const Bytes kPrl = {55, 4, 1, 3, 6, 15};
const Bytes kEnd = {255};

struct V4Case {
    const char* what;
    Bytes message;
    const char* line;  // expected in the log ("" for none in particular)
    bool ok;
    std::string option_list = "";  // when ok
    std::string vendor_class = "";
    std::string hostname = "";
    macaddr mac = kOtherMac;
};

TEST_F(DhcpParserTest, Dhcpv4EdgeCases) {
    const Bytes zero_mac = Bytes(6, 0);
    const std::vector<V4Case> cases = {
        {"BOOTREPLY", v4(kDiscover + kPrl + kEnd, kOtherMac, 2), "op 2 is not BOOTREQUEST", false},
        {"bad cookie",
         [] {
             Bytes m = v4(kDiscover + kPrl);
             m[239] = 0x64;
             return m;
         }(),
         "Invalid magic cookie: 99.130.83.100", false},
        {"End only", v4(kEnd), "DHCP Message Type Option not found", false},
        {"nothing after the cookie", v4({}), "DHCP Message Type Option not found", false},
        {"type after the fingerprint, pads between",
         v4(Bytes{0, 0} + kPrl + Bytes{0} + kDiscover + kEnd), "", true, "1 3 6 15", "", ""},
        {"bytes after End are never read", v4(kDiscover + kPrl + kEnd + Bytes{55, 200, 1}), "",
         true, "1 3 6 15", "", ""},
        {"Offer", v4(Bytes{53, 1, 2} + kPrl), "Invalid DHCP Message Type 2", false},
        {"message type of two bytes", v4(Bytes{53, 2, 1, 1} + kPrl),
         "Invalid length 2 for option DHCP Message Type", false},
        {"second list glued to the first", v4(kDiscover + Bytes{55, 2, 1, 3, 55, 2, 6, 15}), "",
         true, "1 36 15", "", ""},
        {"empty list", v4(kDiscover + Bytes{55, 0}),
         "Invalid length 0 for option DHCP Parameter Request List", false},
        {"vendor class verbatim, zero bytes kept", v4(kDiscover + Bytes{60, 4, 'a', 0, 'b', 0}), "",
         true, "", std::string("a\0b\0", 4)},
        {"empty vendor class", v4(kDiscover + Bytes{60, 0}),
         "Invalid length 0 for option DHCP Vendor class identifier", false},
        {"host name with trailing zeros",
         v4(kDiscover + kPrl + Bytes{12, 7, 'p', 'h', 'o', 'n', 'e', 0, 0}),
         "DHCP hostname 'phone' translated to 'phone'", true, "1 3 6 15", "", "phone"},
        {"empty host name", v4(kDiscover + kPrl + Bytes{12, 0}),
         "Invalid length 0 for Host Name option", false},
        {"host name alone", v4(kDiscover + Bytes{12, 5, 'p', 'h', 'o', 'n', 'e'}),
         "Skipping empty option_list and vendor_class", false},
        {"tag as the last byte", v4(kDiscover + kPrl + Bytes{12}),
         "No data length byte after option tag 12", false},
        {"option past the end", v4(kDiscover + kPrl + Bytes{43, 9, 1}),
         "Invalid data after option tag 43, of length 9", false},
        // Option 61 counts only when chaddr gives no valid MAC; its faults never reject.
        {"client id beside a valid chaddr", v4(kDiscover + kPrl + Bytes{61, 1, 9}, kOtherMac), "",
         true, "1 3 6 15", "", "", kOtherMac},
        {"client id of a zero chaddr",
         v4(kDiscover + kPrl + Bytes{61, 7, 1} +
                Bytes(kOtherMac.bytes().begin(), kOtherMac.bytes().end()),
            macaddr()),
         "", true, "1 3 6 15", "", "", kOtherMac},
        {"neither: the frame's MAC", v4(kDiscover + kPrl, macaddr()), "", true, "1 3 6 15", "", "",
         kFrameMac},
        {"client id too short", v4(kDiscover + kPrl + Bytes{61, 1, 1}, macaddr()),
         "Invalid length 1 for option DHCP client identifier", true, "1 3 6 15", "", "", kFrameMac},
        {"client id of another type", v4(kDiscover + kPrl + Bytes{61, 3, 0, 'i', 'd'}, macaddr()),
         "Expecting MAC address (type 0x01) as client identifier, got type 0x0", true, "1 3 6 15",
         "", "", kFrameMac},
        {"client id with a zero MAC", v4(kDiscover + kPrl + Bytes{61, 7, 1} + zero_mac, macaddr()),
         "00:00:00:00:00:00 is not a valid MAC address", true, "1 3 6 15", "", "", kFrameMac},
    };
    for (const V4Case& c : cases) {
        SCOPED_TRACE(c.what);
        const Outcome out = parse(false, c.message);
        EXPECT_EQ(out.ok, c.ok) << out.log;
        EXPECT_NE(out.log.find(c.line), std::string::npos) << out.log;
        if (!c.ok || !out.ok)
            continue;
        EXPECT_EQ(out.result.fingerprint.option_list, c.option_list);
        EXPECT_EQ(out.result.fingerprint.vendor_class, c.vendor_class);
        EXPECT_EQ(out.result.hostname, c.hostname);
        EXPECT_FALSE(out.result.fingerprint.version);
        EXPECT_EQ(out.result.mac, c.mac);
    }
}

// A DHCPv6 message of `type` with a transaction id and `options`.
Bytes v6(std::uint8_t type, const Bytes& options = {}) {
    return Bytes{type, 0x12, 0x34, 0x56} + options;
}

Bytes option(std::uint16_t code, const Bytes& data) {
    const std::size_t n = data.size();
    return Bytes{std::uint8_t(code >> 8), std::uint8_t(code), std::uint8_t(n >> 8),
                 std::uint8_t(n)} +
           data;
}

Bytes text(const std::string& s) {
    return Bytes(s.begin(), s.end());
}

Bytes mac_bytes(const macaddr& mac) {
    return Bytes(mac.bytes().begin(), mac.bytes().end());
}

const Bytes kOro = option(6, {0, 23, 0, 24, 0, 39});

struct V6Case {
    const char* what;
    Bytes message;
    const char* line;  // expected in the log ("" for none in particular)
    bool ok;
    std::string option_list = "";  // when ok
    std::string vendor_class = "";
    std::string hostname = "";
};

TEST_F(DhcpParserTest, Dhcpv6EdgeCases) {
    const Bytes enterprise_311 = {0, 0, 1, 55};
    const Bytes item_300 = Bytes{1, 44} + Bytes(300, 'x');
    const std::vector<V6Case> cases = {
        {"empty", {}, "Missing DHCP Message Type", false},
        {"ADVERTISE", v6(2, kOro), "Invalid DHCP Message Type 2", false},
        {"RELAY-FORW", v6(12, kOro), "Invalid DHCP Message Type 12", false},
        {"type and transaction id only", v6(1), "Skipping empty information", false},
        {"three bytes of an option header", v6(1, kOro + Bytes{0, 8, 0}),
         "Invalid size 3 for an option", false},
        {"option past the end", v6(1, kOro + Bytes{0, 25, 0, 40, 1}),
         "Invalid data after option code 25, of length 40", false},
        {"option request", v6(5, kOro), "Option: code=6, len=6", true, "23 24 39"},
        {"odd trailing byte ignored", v6(6, option(6, {0, 23, 0, 24, 7})), "", true, "23 24"},
        {"a later empty request empties the list",
         v6(1, kOro + option(6, {}) + option(16, enterprise_311 + Bytes{0, 1, 'a'})), "", true, "",
         "311; a"},
        {"vendor class items",
         v6(3,
            option(16, enterprise_311 + Bytes{0, 8} + text("MSFT 5.0") + Bytes{0, 3, 'x', 0, 0})),
         "Option: code=16, len=19", true, "", "311; MSFT 5.0 x"},
        {"an item of 300 bytes gives its first 44", v6(1, option(16, enterprise_311 + item_300)),
         "", true, "", "311; " + std::string(44, 'x')},
        {"vendor class too short", v6(1, option(16, {0, 0, 1})),
         "Invalid length 3 for Vendor Class option", false},
        {"item bytes missing", v6(1, kOro + option(16, enterprise_311 + Bytes{0, 9, 'a'})), "",
         false},
        {"an empty last item is missing bytes",
         v6(1, kOro + option(16, enterprise_311 + Bytes{0, 0})), "", false},
        {"elapsed time", v6(1, kOro + option(8, {0, 100})), "", true, "23 24 39"},
        {"elapsed time of three bytes", v6(1, kOro + option(8, {0, 0, 1})),
         "Invalid length 3 for Elapsed Time option", false},
        {"FQDN alone", v6(1, option(39, Bytes{1, 5} + text("phone") + Bytes{3} + text("lan"))),
         "DHCPv6 FQDN 'phone' translated to 'phone'", true, "", "", "phone"},
        {"empty FQDN", v6(1, kOro + option(39, {})), "Invalid length 0 for FQDN option", false},
        {"FQDN flags only", v6(1, kOro + option(39, {1})), "", false},
        {"FQDN label cut", v6(1, kOro + option(39, {1, 9, 'a'})), "", false},
        {"FQDN with an empty first label", v6(1, kOro + option(39, {1, 0})), "", true, "23 24 39"},
        {"client id too short", v6(1, kOro + option(1, {0})),
         "Invalid length 1 for option Client ID", false},
        {"DUID-LLT of a zero MAC",
         v6(1, kOro + option(1, Bytes{0, 1, 0, 1, 0, 0, 0, 0} + Bytes(6, 0))),
         "00:00:00:00:00:00 is not a valid MAC address", false},
        {"DUID-LLT cut in its time", v6(1, kOro + option(1, {0, 1, 0, 1, 0})), "", false},
        {"DUID-EN has no MAC", v6(1, kOro + option(1, {0, 2, 0, 0, 0, 9, 1, 2})),
         "Can't extract MAC address from Client ID type 2", true, "23 24 39"},
        {"DUID-LL of another MAC: the frame's wins",
         v6(1, kOro + option(1, Bytes{0, 3, 0, 1} + mac_bytes(kOtherMac))),
         "req_mac: 02:aa:bb:cc:dd:02", true, "23 24 39"},
    };
    for (const V6Case& c : cases) {
        SCOPED_TRACE(c.what);
        const Outcome out = parse(true, c.message);
        EXPECT_FALSE(out.threw);
        EXPECT_EQ(out.ok, c.ok) << out.log;
        EXPECT_NE(out.log.find(c.line), std::string::npos) << out.log;
        if (!c.ok || !out.ok)
            continue;
        EXPECT_EQ(out.result.fingerprint.option_list, c.option_list);
        EXPECT_EQ(out.result.fingerprint.vendor_class, c.vendor_class);
        EXPECT_EQ(out.result.hostname, c.hostname);
        EXPECT_TRUE(out.result.fingerprint.version);
        EXPECT_EQ(out.result.mac, kFrameMac);
    }
}

TEST_F(DhcpParserTest, AVendorClassItemLengthCutToOneByteThrows) {
    const Outcome out = parse(true, v6(1, kOro + option(16, Bytes{0, 0, 1, 55, 0, 1, 'a', 0})));
    EXPECT_TRUE(out.threw);
}

}  // namespace
