// mDNS, UPnP and NetBIOS reports of the collector: gathered per device, capped, and turned into
// the payloads the cloud takes.
#include <gtest/gtest.h>

#include <string>

#include <nk/json.h>

#include "daemon_state.h"
#include "device.h"
#include "network_info.h"
#include "service_info.h"
#include "service_submission.h"
#include "subprocess_messages.h"

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
    const struct {
        const char* json;
        bool ok;
    } tables[] = {
        {R"({"name": "PC", "domain": "HOME", "services": []})", true},
        {R"({"name": "PC", "domain": "HOME"})", false},
        {R"({"name": "PC", "domain": "HOME", "services": [{"name": "PC"}]})", false},
        {R"({"name": "PC", "domain": 1, "services": []})", false},
    };
    for (const auto& c : tables) {
        NetbiosTable read = table;
        EXPECT_EQ(read.from_json(parse(c.json).get()), c.ok) << c.json;
        EXPECT_EQ(read.name, c.ok ? "PC" : "NAS") << c.json;
        EXPECT_EQ(read.services.empty(), c.ok) << c.json;
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

class ServiceReportsTest : public ::testing::Test {
protected:
    void SetUp() override {
        g_feature_additional_info = true;
        g_avahi_max_cache_size = g_upnp_max_cache_size = g_netbios_max_cache_size = 10;
        Device device("d-1", kMac, {address("198.51.100.20"), address("2001:db8:1::20")}, "tv");
        device.cloud.device_id = "d-1";
        g_devices.push_back(device);
        Interface lan("br-lan", nk::netMgmt::LAN, false);
        lan.ipv4.emplace(address("198.51.100.1"), address("255.255.255.0"));
        const std::lock_guard lock(g_interfaces_mutex);
        g_interfaces = {lan};
    }
    void TearDown() override { g_feature_additional_info = false; }

    static void feed(const std::string& type, const std::string& data) {
        process_subprocess_messages({R"({"type": ")" + type + R"(", "data": )" + data + "}"});
    }
    using Interface = nk::netMgmt::Interface;
    const macaddr kMac{"00:00:5e:00:53:20"};
};

TEST_F(ServiceReportsTest, ReportsJoinTheDeviceHoldingTheAddress) {
    for (int i = 0; i < 12; ++i) {
        feed("avahi", R"({"ips": ["192.0.2.99", "2001:db8:1::20"], "service": "_s)" +
                          std::to_string(i) +
                          R"(._tcp", "hostname": "tv", "text": "", "port": 80})");
    }
    feed("avahi", R"({"ips": ["198.51.100.20"], "service": "_x._tcp", "hostname": "tv"})");
    feed("upnp", R"({"ip": "198.51.100.20", "info": {"modelName": "TV"}, "user_agent": "UA/1"})");
    feed("upnp", R"({"ip": "198.51.100.20", "info": {"modelName": "TV"}, "user_agent": ""})");
    feed("upnp", R"({"ip": "2001:db8:1::20", "info": {"modelName": "TV2"}, "user_agent": "UA/6"})");
    feed("upnp", R"({"ip": "198.51.100.99", "info": {"modelName": "X"}})");
    feed("netbios", R"({"ip": "198.51.100.20", "info": {"name": "TV", "domain": "HOME",
                                                         "services": []}})");
    feed("netbios", R"({"ip": "198.51.100.20", "info": {"name": "TV2"}})");

    const LocalData& local = g_devices[0].local;
    EXPECT_EQ(local.avahi_info.current.size(), 10u);
    EXPECT_TRUE(local.avahi_info.pending);
    EXPECT_EQ(local.upnp_info.current.size(), 2u);
    EXPECT_EQ(local.netbios_info.current.size(), 1u);
    // The IPv6 address is in no LAN subnet the BOX serves: that agent is not kept.
    const std::lock_guard lock(g_user_agents_mutex);
    ASSERT_EQ(g_user_agents.size(), 1u);
    EXPECT_EQ(g_user_agents[0].user_agent, "UA/1");
    EXPECT_EQ(g_user_agents[0].mac, kMac);
    g_user_agents.clear();
}

TEST_F(ServiceReportsTest, FeatureOffIgnoresReportsAndFlushSetsThemAside) {
    g_feature_additional_info = false;
    feed("netbios", R"({"ip": "198.51.100.20", "info": {"name": "TV", "domain": "HOME",
                                                         "services": []}})");
    EXPECT_TRUE(g_devices[0].local.netbios_info.current.empty());

    g_feature_additional_info = true;
    feed("netbios", R"({"ip": "198.51.100.20", "info": {"name": "TV", "domain": "HOME",
                                                         "services": []}})");
    reset_service_info(ServiceInfoKind::Upnp);
    EXPECT_EQ(g_devices[0].local.netbios_info.current.size(), 1u);
    reset_service_info(ServiceInfoKind::Netbios);
    EXPECT_TRUE(g_devices[0].local.netbios_info.current.empty());
    EXPECT_EQ(g_devices[0].local.netbios_info.kept.size(), 1u);
    EXPECT_FALSE(g_devices[0].local.netbios_info.pending);
}

}  // namespace
