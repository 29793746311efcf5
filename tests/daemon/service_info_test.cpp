// mDNS, UPnP and NetBIOS records: the per-device cache and the payloads the cloud takes; how the
// collector's reports reach a device is played in the collector's messages.
#include <gtest/gtest.h>

#include <string>

#include <nk/json.h>

#include "daemon_state.h"
#include "device.h"
#include "network_info.h"
#include "service_info.h"
#include "service_submission.h"
#include "subprocess_messages.h"
#include "test_data.h"

namespace {

using nk::netbios::NetbiosTable;

std::string dump(json_t* json) {
    const nk::json_ptr owned(json);
    return owned ? nk::json_dump_compact(owned.get()) : "null";
}

nk::json_ptr parse(const char* text) {
    return nk::json_ptr(json_loads(text, 0, nullptr));
}

TEST(ServiceInfo, PayloadsAndConversions) {
    const std::set<nk::avahi::AvahiInfo> avahi = {{"_ipp._tcp", "printer", "rp=ipp", 631},
                                                  {"_http._tcp", "printer", "", 80}};
    EXPECT_EQ(dump(build_avahi_payload(avahi)),
              R"([{"hostname":"printer","port":80,"service_type":"_http._tcp","text":""},)"
              R"({"hostname":"printer","port":631,"service_type":"_ipp._tcp","text":"rp=ipp"}])");

    // A repeated name keeps its greater value; one empty description spoils the payload.
    const nk::upnp::UpnpInfo tv = {{"modelName", "A"}, {"modelName", "B"}, {"manufacturer", "M"}};
    EXPECT_EQ(dump(build_upnp_payload({tv})), R"([{"manufacturer":"M","modelName":"B"}])");
    EXPECT_EQ(dump(build_upnp_payload({tv, {}})), "null");
    const nk::json_ptr mixed = parse(R"({"a": "1", "n": 2, "b": "x"})");
    EXPECT_EQ(upnp_info_set_from_json(mixed.get()), (nk::upnp::UpnpInfo{{"a", "1"}, {"b", "x"}}));
    EXPECT_TRUE(upnp_info_set_from_json(parse("[]").get()).empty());

    const NetbiosTable table{"NAS", "WORKGROUP", {{"NAS", "server"}, {"NAS", "workstation"}}};
    EXPECT_EQ(
        dump(build_netbios_payload({table})),
        R"([{"name":"NAS","domain":"WORKGROUP","services":[{"name":"NAS","service":"server"},)"
        R"({"name":"NAS","service":"workstation"}]}])");
    // A table read in part is no table: the one before stays whole (data/netbios_tables.jsonl).
    for (const nk::json_ptr& row : nk::test::rows("netbios_tables")) {
        const bool ok = nk::test::flag(row.get(), "ok");
        SCOPED_TRACE(nk::json_dump_compact(row.get()));
        NetbiosTable read = table;
        EXPECT_EQ(read.from_json(json_object_get(row.get(), "json")), ok);
        EXPECT_EQ(read.name, ok ? "PC" : "NAS");
        EXPECT_EQ(read.services.empty(), ok);
    }
}

TEST(ServiceInfo, CacheTakesDistinctRecordsUpToItsCapAndResetKeepsThem) {
    AdditionalInfoCache<nk::avahi::AvahiInfo> cache;
    EXPECT_TRUE(cache.add_data({"_a._tcp", "h1", "", 1}, 3));
    EXPECT_FALSE(cache.add_data({"_a._tcp", "h2", "", 2}, 3));  // same service, another host
    EXPECT_TRUE(cache.add_data({"_b._tcp", "h1", "", 1}, 3));
    EXPECT_TRUE(cache.add_data({"_c._tcp", "h1", "", 1}, 3));
    cache.pending = false;
    EXPECT_FALSE(cache.add_data({"_d._tcp", "h1", "", 1}, 3));
    EXPECT_FALSE(cache.pending);
    EXPECT_EQ(cache.current.begin()->hostname, "h1");

    cache.last_submission = 500;
    cache.reset();
    EXPECT_TRUE(cache.current.empty());
    EXPECT_EQ(cache.kept.size(), 3u);
    EXPECT_EQ(cache.last_submission, 0);
}

}  // namespace
