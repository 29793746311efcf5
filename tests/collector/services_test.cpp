// The service scanners' readers on real answers (nmbd's node status, minidlna's description)
// and on the damaged and hostile ones a LAN can send.
#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "nbstat.h"
#include "service_messages.h"
#include "upnp_description.h"

namespace {

namespace nbstat = nk::collector::nbstat;
namespace upnp = nk::collector::upnp;

std::string data(const std::string& name) {
    std::ifstream in(std::string(NK_COLLECTOR_DATA) + "/services/" + name, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

std::optional<nbstat::NodeStatus> parse(const std::string& bytes, std::string& why) {
    return nbstat::parse(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size(), why);
}

// Captured from nmbd on the simulated LAN (scripts/lan), checked against nmblookup -A.
TEST(CollectorNbstat, RealAnswers) {
    struct Case {
        const char* file;
        std::uint16_t transaction;
        std::size_t names;
        const char* name;
        const char* domain;
        std::vector<std::pair<std::string, std::string>> some_services;
    };
    const Case cases[] = {
        {"nmbd-laptop.nbstat",
         0x1234,
         7,
         "LAPTOP",
         "NKHOME",
         {{"LAPTOP", "workstation"},
          {"LAPTOP", "messenger"},
          {"LAPTOP", "file server"},
          {"NKHOME", "domain name"},
          {"NKHOME", "browser elections"},
          {"NKHOME", "master browser"}}},
        {"nmbd-nas.nbstat",
         0x5678,
         5,
         "NAS",
         "NKHOME",
         {{"NAS", "workstation"}, {"NAS", "file server"}, {"NKHOME", "domain name"}}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.file);
        std::string why;
        const auto status = parse(data(c.file), why);
        ASSERT_TRUE(status) << why;
        EXPECT_EQ(status->transaction_id, c.transaction);
        EXPECT_EQ(status->names.size(), c.names);
        const auto table = nbstat::table_of(*status);
        ASSERT_TRUE(table);
        EXPECT_EQ(table->name, c.name);
        EXPECT_EQ(table->domain, c.domain);
        for (const auto& service : c.some_services)
            EXPECT_EQ(table->services.count(service), 1u) << service.first << " " << service.second;
        const std::string line = nk::collector::netbios_message("198.51.100.149", *table);
        EXPECT_NE(line.find(std::string("\"name\":\"") + c.name + "\",\"domain\":\"NKHOME\""),
                  std::string::npos)
            << line;
    }
}

// Every prefix of a real answer is refused with a reason, never read past its end.
TEST(CollectorNbstat, EveryPrefixRefused) {
    for (const char* file : {"nmbd-laptop.nbstat", "nmbd-nas.nbstat"}) {
        const std::string full = data(file);
        // The statistics after the names are optional: a cut inside them still reads.
        const std::size_t names_end = 57 + static_cast<std::uint8_t>(full[56]) * 18;
        for (std::size_t n = 0; n < names_end; ++n) {
            std::string why;
            EXPECT_FALSE(parse(full.substr(0, n), why)) << file << " cut at " << n;
            EXPECT_FALSE(why.empty());
        }
    }
}

TEST(CollectorNbstat, LyingAnswersRefused) {
    const std::string real = data("nmbd-nas.nbstat");
    struct Case {
        const char* what;
        std::size_t offset;
        std::vector<std::uint8_t> bytes;
        const char* why;
    };
    const Case cases[] = {
        {"a query, not an answer", 2, {0x00}, "not a query answer"},
        {"an error code", 3, {0x03}, "error answer"},
        {"no answer record", 6, {0x00, 0x00}, "no answer record"},
        {"questions that are not there", 4, {0x00, 0x03}, "questions that do not fit"},
        {"rdlength past the end", 54, {0xff, 0xff}, "is past the"},
        {"more names than its length holds", 56, {0xff}, "do not fit"},
        {"a label longer than 63", 12, {0x50}, "runs past the end"},
        {"another record type", 46, {0x00, 0x20}, "not a node status"},
    };
    for (const Case& c : cases) {
        std::string bytes = real;
        for (std::size_t i = 0; i < c.bytes.size(); ++i)
            bytes[c.offset + i] = static_cast<char>(c.bytes[i]);
        std::string why;
        EXPECT_FALSE(parse(bytes, why)) << c.what;
        EXPECT_NE(why.find(c.why), std::string::npos) << c.what << ": " << why;
    }
}

// Captured from minidlna on the simulated LAN: curl http://CAMERA:8200/rootDesc.xml.
TEST(CollectorUpnpDescription, RealMinidlna) {
    std::string why;
    const auto info = upnp::read_description(data("minidlna-rootDesc.xml"), why);
    ASSERT_TRUE(info) << why;
    const upnp::Info expected = {
        {"deviceType", "urn:schemas-upnp-org:device:MediaServer:1"},
        {"friendlyName", "camera media"},
        {"manufacturer", "Justin Maggard"},
        {"manufacturerURL", "http://www.netgear.com/"},
        {"modelDescription", "MiniDLNA on Linux"},
        {"modelName", "Windows Media Connect compatible (MiniDLNA)"},
        {"modelNumber", "1"},
        {"modelURL", "http://www.netgear.com"},
        {"serialNumber", "camera-0001"},
        {"UDN", "uuid:4d696e69-444c-164e-9d41-00005e0053ed"},
        {"presentationURL", "/"},
    };
    EXPECT_EQ(*info, expected);
}

TEST(CollectorUpnpDescription, HostileRefusedOrBounded) {
    const std::string real = data("minidlna-rootDesc.xml");
    std::string deep;
    for (int i = 0; i < 100; ++i)
        deep += "<device>";
    struct Case {
        const char* what;
        std::string xml;
        const char* why;  // null: read, with every value bounded
    };
    const Case cases[] = {
        {"not XML", "HTTP/1.1 200 OK\r\n\r\nhello", "not XML"},
        {"cut short", real.substr(0, real.size() / 2), "not XML"},
        {"another document", "<html><body>hi</body></html>", "no device description"},
        {"entity expansion",
         "<?xml version=\"1.0\"?><!DOCTYPE root [<!ENTITY a \"aaaaaaaaaa\"><!ENTITY b "
         "\"&a;&a;&a;&a;&a;&a;&a;&a;&a;&a;\">]><root><device><friendlyName>&b;&b;</friendlyName>"
         "</device></root>",
         "document type"},
        {"external entity",
         "<!DOCTYPE root SYSTEM \"file:///etc/passwd\"><root><device><friendlyName>x"
         "</friendlyName></device></root>",
         "document type"},
        {"nested deep", "<root>" + deep, "nested deeper"},
        {"a root device naming nothing", "<root><device><foo>bar</foo></device></root>",
         "names nothing"},
        {"a huge name",
         "<root><device><friendlyName>" + std::string(1 << 20, 'x') +
             "</friendlyName></device></root>",
         nullptr},
    };
    for (const Case& c : cases) {
        std::string why;
        const auto info = upnp::read_description(c.xml, why);
        if (c.why == nullptr) {
            ASSERT_TRUE(info) << c.what << ": " << why;
            for (const auto& [name, value] : *info)
                EXPECT_LE(value.size(), upnp::kMaxValue) << c.what;
            continue;
        }
        EXPECT_FALSE(info) << c.what;
        EXPECT_NE(why.find(c.why), std::string::npos) << c.what << ": " << why;
    }
}

}  // namespace
