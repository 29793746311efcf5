// The service scanners' readers on real answers (nmbd's node status, minidlna's description),
// on every cut of them, and on the lying and hostile ones a LAN can send (data/services/).
#include <gtest/gtest.h>

#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "nbstat.h"
#include "service_messages.h"
#include "tables.h"
#include "upnp_description.h"

namespace {

namespace nbstat = nk::collector::nbstat;
namespace upnp = nk::collector::upnp;

std::string data(const std::string& name) {
    return nk::test::read_data(NK_COLLECTOR_DATA "/services/" + name);
}

std::optional<nbstat::NodeStatus> parse(const std::string& bytes, std::string& why) {
    return nbstat::parse(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size(), why);
}

TEST(CollectorNbstat, RealAnswers) {
    for (const auto& row : nk::test::read_table(NK_COLLECTOR_DATA "/services/nbstat.tsv")) {
        SCOPED_TRACE(row[0]);
        const std::string full = data(row[0]);
        std::string why;
        const auto status = parse(full, why);
        ASSERT_TRUE(status) << why;
        EXPECT_EQ(status->transaction_id, std::stoi(row[1]));
        EXPECT_EQ(status->names.size(), std::stoul(row[2]));
        const auto table = nbstat::table_of(*status);
        ASSERT_TRUE(table);
        EXPECT_EQ(table->name + " " + table->domain, row[3] + " " + row[4]);
        std::istringstream services(row[5]);
        for (std::string service; std::getline(services, service, ',');) {
            const std::size_t colon = service.find(':');
            EXPECT_EQ(table->services.count({service.substr(0, colon), service.substr(colon + 1)}),
                      1u)
                << service;
        }
        const std::string line = nk::collector::netbios_message("198.51.100.149", *table);
        EXPECT_NE(line.find("\"name\":\"" + row[3] + "\",\"domain\":\"" + row[4] + "\""),
                  std::string::npos)
            << line;
        // Every prefix is refused with a reason, never read past its end; the statistics after
        // the names are optional, so a cut inside them still reads.
        const std::size_t names_end = 57 + static_cast<std::uint8_t>(full[56]) * 18;
        for (std::size_t n = 0; n < names_end; ++n) {
            EXPECT_FALSE(parse(full.substr(0, n), why)) << "cut at " << n;
            EXPECT_FALSE(why.empty());
        }
    }
}

TEST(CollectorNbstat, LyingAnswersRefused) {
    for (const auto& row : nk::test::read_table(NK_COLLECTOR_DATA "/services/nbstat-lies.tsv")) {
        std::string bytes = data("nmbd-nas.nbstat");
        bytes.replace(std::stoul(row[0]), row[1].size(), row[1]);
        std::string why;
        EXPECT_FALSE(parse(bytes, why)) << row[3];
        EXPECT_NE(why.find(row[2]), std::string::npos) << row[3] << ": " << why;
    }
}

TEST(CollectorUpnpDescription, RealMinidlna) {
    std::string why;
    const auto info = upnp::read_description(data("minidlna-rootDesc.xml"), why);
    ASSERT_TRUE(info) << why;
    upnp::Info expected;
    for (const auto& row :
         nk::test::read_table(NK_COLLECTOR_DATA "/services/minidlna-rootDesc.tsv"))
        expected[row[0]] = row[1];
    EXPECT_EQ(*info, expected);
}

TEST(CollectorUpnpDescription, HostileRefusedOrBounded) {
    const std::string real = data("minidlna-rootDesc.xml");
    std::string deep;
    for (int i = 0; i < 100; ++i)
        deep += "<device>";
    const std::map<std::string, std::string> values{{"half", real.substr(0, real.size() / 2)},
                                                    {"deep", deep},
                                                    {"huge", std::string(1 << 20, 'x')}};
    for (const auto& row :
         nk::test::read_table(NK_COLLECTOR_DATA "/services/hostile-descriptions.tsv")) {
        std::string why;
        const auto info = upnp::read_description(nk::test::expand(row[0], values), why);
        if (row[1] == "none") {
            ASSERT_TRUE(info) << row[0] << ": " << why;
            for (const auto& [name, value] : *info)
                EXPECT_LE(value.size(), upnp::kMaxValue) << row[0];
            continue;
        }
        EXPECT_FALSE(info) << row[0];
        EXPECT_NE(why.find(row[1]), std::string::npos) << row[0] << ": " << why;
    }
}

}  // namespace
