// The frame decoder, the kernel filter and the events they lead to, on real frames captured on
// the simulated LAN (data/lan.pcap: dhclient, udhcpc and dhcpcd, curl, BusyBox wget and GNU
// Wget, fragments, and the server's side), then on the same frames cut, tagged and damaged.
#include <gtest/gtest.h>
#include <pcap/pcap.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <nk/json.h>
#include <nk/util.h>

#include "capture_filter.h"
#include "http_request.h"
#include "repeat_filter.h"
#include "sighting.h"

namespace {

using nk::sniffer::Sighting;
using nk::sniffer::Skip;
using Bytes = std::vector<std::uint8_t>;

std::vector<Bytes> read_capture() {
    char error[PCAP_ERRBUF_SIZE] = {};
    const std::unique_ptr<pcap_t, decltype(&pcap_close)> file(
        pcap_open_offline(NK_SNIFFER_DATA "/lan.pcap", error), pcap_close);
    EXPECT_TRUE(file) << error;
    std::vector<Bytes> frames;
    pcap_pkthdr* header = nullptr;
    const u_char* data = nullptr;
    while (file && pcap_next_ex(file.get(), &header, &data) == 1)
        frames.emplace_back(data, data + header->caplen);
    return frames;
}

const std::vector<Bytes>& frames() {
    static const std::vector<Bytes> all = read_capture();
    return all;
}

struct Expected {
    const char* what;
    Skip skip;
    const char* mac = "";
    int version = 0;          // DHCP
    const char* agent = "";   // HTTP
    const char* src_ip = "";  // HTTP
};

// One row per frame of data/lan.pcap, in order.
const Expected kFrames[] = {
    {"MLDv2 report after a hop-by-hop header", Skip::NotUdpOrTcp},
    {"router solicitation", Skip::NotUdpOrTcp},
    {"dhclient DISCOVER", Skip::None, "00:00:5e:00:53:3a", 4},
    {"udhcpc DISCOVER", Skip::None, "00:00:5e:00:53:ed", 4},
    {"dhclient SOLICIT", Skip::None, "00:00:5e:00:53:3a", 6},
    {"dhcpcd DISCOVER on the guest bridge", Skip::None, "00:00:5e:00:53:d7", 4},
    {"dhcpcd SOLICIT", Skip::None, "00:00:5e:00:53:59", 6},
    {"dhcpcd DISCOVER", Skip::None, "00:00:5e:00:53:59", 4},
    {"dnsmasq OFFER", Skip::Uninteresting},
    {"dhclient REQUEST", Skip::None, "00:00:5e:00:53:3a", 4},
    {"udhcpc REQUEST", Skip::None, "00:00:5e:00:53:ed", 4},
    {"dhcpcd REQUEST", Skip::None, "00:00:5e:00:53:59", 4},
    {"dnsmasq ADVERTISE", Skip::Uninteresting},
    {"dhclient DHCPv6 REQUEST", Skip::None, "00:00:5e:00:53:3a", 6},
    {"ARP reply", Skip::NotIp},
    {"SYN to port 80", Skip::Uninteresting},
    {"curl GET", Skip::None, "00:00:5e:00:53:3a", 0,
     "Mozilla/5.0 (X11; Linux x86_64; rv:115.0) Gecko/20100101 Firefox/115.0", "198.51.100.149"},
    {"HTTP response", Skip::Uninteresting},
    {"BusyBox wget GET", Skip::None, "00:00:5e:00:53:ed", 0, "Wget", "198.51.100.128"},
    {"GNU Wget GET", Skip::None, "00:00:5e:00:53:59", 0, "Wget/1.21.3", "198.51.100.180"},
    {"GNU Wget GET from a guest", Skip::None, "00:00:5e:00:53:d7", 0, "Wget/1.21.3", "192.0.2.106"},
    {"curl GET over IPv6", Skip::None, "00:00:5e:00:53:3a", 0,
     "Mozilla/5.0 (X11; Linux x86_64) IPv6 test", "2001:db8:1::176"},
    {"first IPv4 fragment", Skip::Fragment},
    {"last IPv4 fragment", Skip::Fragment},
    {"first IPv6 fragment", Skip::Fragment},
    {"last IPv6 fragment", Skip::Fragment},
    {"curl POST", Skip::None, "00:00:5e:00:53:3a", 0,
     "Mozilla/5.0 (X11; Linux x86_64; rv:115.0) Gecko/20100101 Firefox/115.0", "198.51.100.149"},
};

std::optional<Sighting> sighting_of(const Bytes& frame, Skip* skip = nullptr) {
    std::optional<Sighting> out;
    const Skip why = nk::sniffer::sight(frame.data(), frame.size(), "br-lan", out);
    if (skip != nullptr)
        *skip = why;
    return out;
}

// The frame with 802.1Q tags inserted after the MAC addresses, outermost first.
Bytes tagged(const Bytes& frame, const std::vector<std::uint16_t>& tpids) {
    Bytes out(frame.begin(), frame.begin() + 12);
    for (const std::uint16_t tpid : tpids) {
        out.insert(out.end(), {static_cast<std::uint8_t>(tpid >> 8),
                               static_cast<std::uint8_t>(tpid & 0xff), 0x00, 42});
    }
    out.insert(out.end(), frame.begin() + 12, frame.end());
    return out;
}

std::uint16_t be16(const std::string& bytes, std::size_t at) {
    return static_cast<std::uint16_t>(static_cast<std::uint8_t>(bytes[at]) << 8 |
                                      static_cast<std::uint8_t>(bytes[at + 1]));
}

TEST(FrameTest, RealFramesGiveTheEventsTheDaemonReads) {
    ASSERT_EQ(frames().size(), std::size(kFrames));
    for (std::size_t i = 0; i < frames().size(); ++i) {
        const Expected& want = kFrames[i];
        SCOPED_TRACE(want.what);
        Skip skip = Skip::None;
        const std::optional<Sighting> got = sighting_of(frames()[i], &skip);
        ASSERT_EQ(skip, want.skip) << nk::sniffer::to_string(skip);
        if (!got)
            continue;
        EXPECT_EQ(got->mac.to_string(), want.mac);
        const nk::json_ptr json(json_loads(got->event.payload.c_str(), 0, nullptr));
        ASSERT_TRUE(json) << got->event.payload;
        if (want.version != 0) {
            EXPECT_EQ(got->event.name, "sifter_dhcp_payload");
            EXPECT_STREQ(nk::json_string_member(json.get(), "netif"), "br-lan");
            EXPECT_STREQ(nk::json_string_member(json.get(), "source_mac"), want.mac);
            EXPECT_EQ(json_integer_value(json_object_get(json.get(), "version")), want.version);
            // The UDP header, to the server port, and the whole message it announces.
            const auto udp = nk::base64_decode(nk::json_string_member(json.get(), "raw_payload"));
            ASSERT_TRUE(udp && udp->size() > 8);
            EXPECT_EQ(be16(*udp, 2), want.version == 4 ? 67 : 547);
            EXPECT_EQ(be16(*udp, 4), udp->size());
        } else {
            EXPECT_EQ(got->event.name, "sifter_user_agent");
            EXPECT_STREQ(nk::json_string_member(json.get(), "src_netif"), "br-lan");
            EXPECT_STREQ(nk::json_string_member(json.get(), "src_mac"), want.mac);
            EXPECT_STREQ(nk::json_string_member(json.get(), "src_ip"), want.src_ip);
            EXPECT_STREQ(nk::json_string_member(json.get(), "user_agent"), want.agent);
            EXPECT_EQ(got->user_agent, want.agent);
        }
    }
}

// The kernel filter lets through exactly the frames that make an event, tagged or not.
TEST(FrameTest, TheFilterPassesExactlyTheFramesThatMakeEvents) {
    const std::unique_ptr<pcap_t, decltype(&pcap_close)> dead(pcap_open_dead(DLT_EN10MB, 65535),
                                                              pcap_close);
    bpf_program program{};
    ASSERT_EQ(pcap_compile(dead.get(), &program, nk::sniffer::capture_filter().c_str(), 1,
                           PCAP_NETMASK_UNKNOWN),
              0)
        << pcap_geterr(dead.get());
    for (std::size_t i = 0; i < frames().size(); ++i) {
        for (const Bytes& frame : {frames()[i], tagged(frames()[i], {0x8100})}) {
            pcap_pkthdr header{};
            header.caplen = header.len = static_cast<bpf_u_int32>(frame.size());
            const bool passed = pcap_offline_filter(&program, &header, frame.data()) != 0;
            EXPECT_EQ(passed, kFrames[i].skip == Skip::None)
                << kFrames[i].what << (frame.size() > frames()[i].size() ? ", tagged" : "");
        }
    }
    pcap_freecode(&program);
}

TEST(FrameTest, VlanTagsAreLookedThroughUpToTwo) {
    for (std::size_t i = 0; i < frames().size(); ++i) {
        SCOPED_TRACE(kFrames[i].what);
        const std::optional<Sighting> plain = sighting_of(frames()[i]);
        for (const std::vector<std::uint16_t>& tags :
             std::vector<std::vector<std::uint16_t>>{{0x8100}, {0x88a8, 0x8100}}) {
            Skip skip = Skip::None;
            const std::optional<Sighting> got = sighting_of(tagged(frames()[i], tags), &skip);
            EXPECT_EQ(skip, kFrames[i].skip);
            // A DHCP event carries no Ethernet bytes: tagged or not, it is the same.
            EXPECT_EQ(got ? got->event.payload : "", plain ? plain->event.payload : "");
        }
        Skip skip = Skip::None;
        sighting_of(tagged(frames()[i], {0x88a8, 0x8100, 0x8100}), &skip);
        EXPECT_EQ(skip, Skip::NotIp);
    }
}

// Every cut of every frame: never read past it, and never an event other than the whole
// frame's (a request's header cut after its User-Agent line still gives that agent).
TEST(FrameTest, CutFramesGiveNothingOrTheWholeFramesEvent) {
    for (std::size_t i = 0; i < frames().size(); ++i) {
        const Bytes& whole = frames()[i];
        const std::optional<Sighting> full = sighting_of(whole);
        for (std::size_t size = 0; size < whole.size(); ++size) {
            const Bytes cut(whole.begin(), whole.begin() + size);
            Skip skip = Skip::None;
            const std::optional<Sighting> got = sighting_of(cut, &skip);
            if (!got)
                continue;
            ASSERT_TRUE(full) << kFrames[i].what << " cut to " << size;
            EXPECT_EQ(got->kind, Sighting::Kind::UserAgent)
                << kFrames[i].what << " cut to " << size;
            EXPECT_EQ(got->event.payload, full->event.payload);
        }
    }
}

TEST(FrameTest, DamagedHeadersAreMalformed) {
    struct Damage {
        std::size_t frame;
        std::size_t offset;
        Bytes bytes;  // written over the frame's at the offset
        Skip skip;
    };
    const Damage kDamage[] = {
        {2, 14, {0x44}, Skip::Malformed},                               // IPv4 header of 16 bytes
        {2, 14, {0x55}, Skip::Malformed},                               // IP version 5
        {2, 38, {0x00, 0x04}, Skip::Malformed},                         // UDP length 4
        {2, 38, {0xff, 0xff}, Skip::Truncated},                         // UDP length past the frame
        {4, 18, {0x00, 0x00}, Skip::Malformed},                         // IPv6 jumbogram
        {16, 46, {0x40}, Skip::Malformed},                              // TCP header of 16 bytes
        {15, 46, {0xf0}, Skip::Truncated},                              // TCP header past the SYN
        {2, 6, {0xff, 0xff, 0xff, 0xff, 0xff, 0xff}, Skip::Malformed},  // broadcast source
    };
    for (const Damage& d : kDamage) {
        Bytes frame = frames()[d.frame];
        std::copy(d.bytes.begin(), d.bytes.end(), frame.begin() + d.offset);
        Skip skip = Skip::None;
        EXPECT_FALSE(sighting_of(frame, &skip));
        EXPECT_EQ(skip, d.skip) << kFrames[d.frame].what << ", at byte " << d.offset;
    }
}

TEST(FrameTest, UserAgentIsReadOnlyFromAWholeLineOfARequestHeader) {
    const std::string kLong(nk::sniffer::kMaxUserAgent + 1, 'a');
    struct Case {
        std::string segment;
        std::optional<std::string> agent;
    };
    const Case kCases[] = {
        {"GET / HTTP/1.1\r\nHost: x\r\nuser-AGENT:  curl/8 \t\r\n\r\n", "curl/8"},
        {"OPTIONS * HTTP/1.1\r\nUser-Agent: Mozilla/5.0 (\xc3\xa9t\xc3\xa9)\r\n\r\n",
         "Mozilla/5.0 (\xc3\xa9t\xc3\xa9)"},
        {"GET / HTTP/1.1\r\nUser-Agent: cut", std::nullopt},
        {"GET / HTTP/1.1\r\nHost: x\r\n\r\nUser-Agent: in the body\r\n", std::nullopt},
        {"GETX / HTTP/1.1\r\nUser-Agent: a\r\n\r\n", std::nullopt},
        {"get / HTTP/1.1\r\nUser-Agent: a\r\n\r\n", std::nullopt},
        {"GET / HTTP/1.1\r\nUser-Agent: \r\n\r\n", std::nullopt},
        {"GET / HTTP/1.1\r\nUser-Agent: a\x01z\r\n\r\n", std::nullopt},
        {"GET / HTTP/1.1\r\nUser-Agent: \xc0\xaf\r\n\r\n", std::nullopt},      // overlong '/'
        {"GET / HTTP/1.1\r\nUser-Agent: \xed\xa0\x80\r\n\r\n", std::nullopt},  // surrogate
        {"GET / HTTP/1.1\r\nUser-Agent: " + kLong + "\r\n\r\n", std::nullopt},
        {"GET / HTTP/1.1\r\nX-User-Agent: a\r\nUser-Agent: b\r\n\r\n", "b"},
    };
    for (const Case& c : kCases)
        EXPECT_EQ(nk::sniffer::user_agent_of(c.segment), c.agent) << c.segment;
}

TEST(FrameTest, RepeatsWithinTheWindowAreDroppedAndTheTableStaysBounded) {
    using namespace std::chrono_literals;
    nk::sniffer::RepeatFilter filter(2, 60s);
    const nk::sockutl::macaddr a("00:00:5e:00:53:01");
    const nk::sockutl::macaddr b("00:00:5e:00:53:02");
    const auto t0 = nk::sniffer::RepeatFilter::Clock::time_point{} + 1h;
    EXPECT_FALSE(filter.is_repeat(a, "x", t0));
    EXPECT_TRUE(filter.is_repeat(a, "x", t0 + 59s));
    EXPECT_FALSE(filter.is_repeat(b, "x", t0 + 59s));  // another MAC
    EXPECT_FALSE(filter.is_repeat(a, "x", t0 + 60s));  // the window has passed
    EXPECT_TRUE(filter.is_repeat(a, "x", t0 + 61s));
    EXPECT_FALSE(filter.is_repeat(a, "y", t0 + 62s));  // full: b's, the oldest, goes
    EXPECT_EQ(filter.size(), 2u);
    EXPECT_FALSE(filter.is_repeat(b, "x", t0 + 63s));
}

}  // namespace
