// The frame decoder, the kernel filter and the events they lead to, on real frames captured on
// the simulated LAN (data/lan.pcap: dhclient, udhcpc and dhcpcd, curl, BusyBox wget and GNU
// Wget, fragments, and the server's side; what each makes in data/lan_frames.tsv), then on the
// same frames tagged, cut and damaged.
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
#include "tables.h"

namespace {

using nk::sniffer::Sighting;
using nk::sniffer::Skip;
using Bytes = std::vector<std::uint8_t>;

const std::vector<Bytes>& frames() {
    static const std::vector<Bytes> all = [] {
        char error[PCAP_ERRBUF_SIZE] = {};
        const std::unique_ptr<pcap_t, decltype(&pcap_close)> file(
            pcap_open_offline(NK_SNIFFER_DATA "/lan.pcap", error), pcap_close);
        EXPECT_TRUE(file) << error;
        std::vector<Bytes> out;
        pcap_pkthdr* header = nullptr;
        const u_char* data = nullptr;
        while (file && pcap_next_ex(file.get(), &header, &data) == 1)
            out.emplace_back(data, data + header->caplen);
        return out;
    }();
    return all;
}

// Why the frame makes no event ("none" when `out` was set).
std::string sight(const Bytes& frame, std::optional<Sighting>& out) {
    return nk::sniffer::to_string(nk::sniffer::sight(frame.data(), frame.size(), "br-lan", out));
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

// Each real frame with one or two VLAN tags makes the event it makes untagged (a DHCP event
// carries no Ethernet bytes); a third tag hides the IP header.
TEST(FrameTest, VlanTags) {
    for (std::size_t i = 0; i < frames().size(); ++i) {
        SCOPED_TRACE(i);
        std::optional<Sighting> got;
        const std::string why = sight(frames()[i], got);
        for (const std::vector<std::uint16_t>& tags :
             std::vector<std::vector<std::uint16_t>>{{0x8100}, {0x88a8, 0x8100}}) {
            std::optional<Sighting> again;
            EXPECT_EQ(sight(tagged(frames()[i], tags), again), why);
            EXPECT_EQ(again ? again->event.payload : "", got ? got->event.payload : "");
        }
        std::optional<Sighting> hidden;
        EXPECT_EQ(sight(tagged(frames()[i], {0x88a8, 0x8100, 0x8100}), hidden), "not IP");
    }
}

// Each real frame: its event as the daemon reads it; the kernel filter passes exactly the
// frames that make an event, tagged or not; and no cut of it reads past the cut or gives an
// event other than the whole frame's (a request cut after its User-Agent line still gives that
// agent).
TEST(FrameTest, RealFramesTaggedAndCut) {
    const auto rows = nk::test::read_table(NK_SNIFFER_DATA "/lan_frames.tsv");
    ASSERT_EQ(frames().size(), rows.size());
    const std::unique_ptr<pcap_t, decltype(&pcap_close)> dead(pcap_open_dead(DLT_EN10MB, 65535),
                                                              pcap_close);
    bpf_program filter{};
    ASSERT_EQ(pcap_compile(dead.get(), &filter, nk::sniffer::capture_filter().c_str(), 1,
                           PCAP_NETMASK_UNKNOWN),
              0)
        << pcap_geterr(dead.get());
    for (std::size_t i = 0; i < frames().size(); ++i) {
        std::vector<std::string> want = rows[i];
        want.resize(6);
        SCOPED_TRACE(want[0]);
        std::optional<Sighting> got;
        ASSERT_EQ(sight(frames()[i], got), want[1]);
        for (const Bytes& frame : {frames()[i], tagged(frames()[i], {0x8100})}) {
            pcap_pkthdr header{};
            header.caplen = header.len = static_cast<bpf_u_int32>(frame.size());
            EXPECT_EQ(pcap_offline_filter(&filter, &header, frame.data()) != 0, got.has_value())
                << frame.size();
        }
        for (std::size_t size = 0; size < frames()[i].size(); ++size) {
            std::optional<Sighting> cut;
            sight(Bytes(frames()[i].begin(), frames()[i].begin() + size), cut);
            if (cut) {
                ASSERT_TRUE(got && cut->kind == Sighting::Kind::UserAgent) << "cut to " << size;
                EXPECT_EQ(cut->event.payload, got->event.payload) << "cut to " << size;
            }
        }
        if (!got)
            continue;
        EXPECT_EQ(got->mac.to_string(), want[2]);
        const nk::json_ptr json(json_loads(got->event.payload.c_str(), 0, nullptr));
        ASSERT_TRUE(json) << got->event.payload;
        const auto member = [&](const char* key) {
            const char* value = nk::json_string_member(json.get(), key);
            return std::string(value ? value : "(none)");
        };
        const int version = std::stoi(want[3]);
        if (version != 0) {
            EXPECT_EQ(got->event.name, "sifter_dhcp_payload");
            EXPECT_EQ(member("netif") + " " + member("source_mac"), "br-lan " + want[2]);
            EXPECT_EQ(json_integer_value(json_object_get(json.get(), "version")), version);
            // The UDP header, to the server port, and the whole message it announces.
            const auto udp = nk::base64_decode(member("raw_payload"));
            ASSERT_TRUE(udp && udp->size() > 8);
            EXPECT_EQ(be16(*udp, 2), version == 4 ? 67 : 547);
            EXPECT_EQ(be16(*udp, 4), udp->size());
        } else {
            EXPECT_EQ(got->event.name, "sifter_user_agent");
            EXPECT_EQ(member("src_netif") + " " + member("src_mac") + " " + member("src_ip") + " " +
                          member("user_agent"),
                      "br-lan " + want[2] + " " + want[5] + " " + want[4]);
            EXPECT_EQ(got->user_agent, want[4]);
        }
    }
    pcap_freecode(&filter);
}

TEST(FrameTest, DamagedHeadersMakeNoEvent) {
    for (const auto& row : nk::test::read_table(NK_SNIFFER_DATA "/damaged_frames.tsv")) {
        Bytes frame = frames()[std::stoul(row[0])];
        std::copy(row[2].begin(), row[2].end(), frame.begin() + std::stol(row[1]));
        std::optional<Sighting> got;
        EXPECT_EQ(sight(frame, got), row[3]) << row[4];
    }
}

TEST(FrameTest, UserAgentIsReadOnlyFromAWholeLineOfARequestHeader) {
    const std::string too_long(nk::sniffer::kMaxUserAgent + 1, 'a');
    for (const auto& row : nk::test::read_table(NK_SNIFFER_DATA "/user_agents.tsv")) {
        const std::optional<std::string> want =
            row.size() > 1 ? std::optional<std::string>(row[1]) : std::nullopt;
        EXPECT_EQ(nk::sniffer::user_agent_of(nk::test::expand(row[0], {{"long", too_long}})), want)
            << row[0];
    }
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
