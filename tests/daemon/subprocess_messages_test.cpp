// The collector as the daemon sees it: its restart policy, and its lease snapshots and service
// reports applied to the inventory against a real broker, settings store and device table.
#include <sys/stat.h>

#include <string>

#include <gtest/gtest.h>
#include <nk/json.h>
#include <nk/util.h>

#include "daemon_fixture.h"
#include "daemon_state.h"
#include "device.h"
#include "device_identity.h"
#include "host_names.h"
#include "network_info.h"
#include "service_info.h"
#include "service_submission.h"
#include "subprocess_messages.h"
#include "test_data.h"
#include "wait.h"

namespace {

using nk::netMgmt::Interface;
using nk::test::Row;

TEST(RestartPolicy, ACollectorThatDiesAtOnceIsStartedSixTimesThenLeftUntilTheThreshold) {
    nk::test::TempDir dir;
    const std::string collector = dir / "nkdevinfo";
    std::ofstream(collector) << "#!/bin/sh\nexit 1\n";
    ASSERT_EQ(::chmod(collector.c_str(), 0755), 0);
    nk::test::ScopedEnv libexec("NK_LIBEXEC_DIR", dir.path());
    g_retry_interval = {{"subprocess_respawn_frequency", 10}, {"subprocess_respawn_retries", 5}};
    g_subprocess = make_collector(0);
    ASSERT_TRUE(g_subprocess);
    set_lan_present(true);

    // The interface update starts it first; every later start is the policy's.
    ASSERT_TRUE(g_subprocess->start());
    int starts = 1;
    for (;;) {
        ASSERT_TRUE(nk::test::wait_until([] {
            g_subprocess->recv();
            return g_subprocess->pid() == 0;
        }));
        g_now = g_subprocess->started_at() + 9;  // too soon
        restart_subprocess();
        ASSERT_EQ(g_subprocess->pid(), 0);
        g_now += 1;
        restart_subprocess();
        if (g_subprocess->pid() == 0)
            break;
        ++starts;
    }
    EXPECT_EQ(starts, 6);
    EXPECT_EQ(g_subprocess->failures(), 6);

    // What the respawn threshold timer does; without a LAN nothing would start all the same.
    g_subprocess->set_failures(0);
    set_lan_present(false);
    restart_subprocess();
    EXPECT_EQ(g_subprocess->pid(), 0);
    set_lan_present(true);
    restart_subprocess();
    EXPECT_GT(g_subprocess->pid(), 0);
    g_subprocess->stop(true);
    g_subprocess.reset();
}

Interface interface(const std::string& name, nk::netMgmt::InterfaceType type, bool guest,
                    const char* ip, int prefix) {
    Interface iface(name, type, guest);
    const address net(ip);
    iface.ipv4.emplace(net, *address::netmask(net.family(), prefix));
    return iface;
}

// Members a row leaves out are not checked.
void expect_member(const Row& row, const char* key, long long actual) {
    const json_t* v = row.get(key);
    EXPECT_TRUE(!v || actual == (json_is_boolean(v) ? json_is_true(v) : json_integer_value(v)))
        << key << ": " << actual;
}

class CollectorMessagesTest : public nk::test::CloudTest {
protected:
    void SetUp() override {
        CloudTest::SetUp();
        g_feature_onbox_status = true;
        g_feature_additional_info = false;
        g_avahi_max_cache_size = g_upnp_max_cache_size = g_netbios_max_cache_size = 10;
        ASSERT_TRUE(nk::onbox::Guardian::instance().init());
        const std::lock_guard lock(g_interfaces_mutex);
        g_interfaces = {interface("br-lan", nk::netMgmt::LAN, false, "198.51.100.1", 24),
                        interface("br-guest", nk::netMgmt::LAN, true, "192.0.2.1", 24),
                        interface("wan0", nk::netMgmt::WAN, false, "203.0.113.2", 24)};
    }

    // The rows of one case (data/collector_messages.jsonl): the collector's messages in order,
    // each with the inventory, store and cloud requests it must leave behind.
    void play(const std::string& name) {
        for (const Row& s : nk::test::rows("collector_messages")) {
            if (s.str("case") != name)
                continue;
            SCOPED_TRACE(s.text());
            g_now += s.num("advance");
            if (!s.str("ignored").empty()) {
                ASSERT_EQ(nk::setMgmt::setKey("/daemons/nkdevicediscovery/ignored_macs/user",
                                              s.str("ignored")),
                          0);
            }
            if (!s.str("connect_id").empty())
                cloud_.set("connect_device", nk::test::id_answer(s.str("connect_id")).c_str());
            if (const json_t* on = s.get("additional_info"))
                g_feature_additional_info = json_is_true(on);
            const json_t* message = s.get("message");
            const std::size_t before = sent();
            if (message) {
                process_subprocess_messages({json_is_string(message)
                                                 ? json_string_value(message)
                                                 : nk::json_dump_compact(message)});
            }
            if (!s.str("reset").empty())
                reset_service_info(s.str("reset") == "upnp" ? ServiceInfoKind::Upnp
                                                            : ServiceInfoKind::Netbios);

            expect_member(s, "received", leases_received());
            expect_member(s, "devices", static_cast<long long>(g_devices.size()));
            expect_member(s, "sent", static_cast<long long>(sent()));
            EXPECT_TRUE(!s.flag("unchanged") || sent() == before);
            for (const char* command : {"connect_device", "set_device_onbox"})
                expect_member(s, command, static_cast<long long>(cloud_.bodies(command).size()));
            const char* key = nullptr;
            const json_t* v = nullptr;
            json_object_foreach(s.get("last"), key, v) {
                ASSERT_FALSE(cloud_.bodies(key).empty()) << key;
                EXPECT_NE(cloud_.bodies(key).back().find(json_string_value(v)), std::string::npos);
            }
            json_object_foreach(s.get("names"), key, v) {
                const auto it = g_hostnames.find(macaddr(key));
                EXPECT_EQ(it == g_hostnames.end() ? "none" : it->second,
                          json_is_string(v) ? json_string_value(v) : "none")
                    << key;
            }
            for (const std::string& id : s.strs("stored"))
                EXPECT_NE(nk::test::marker(id), "absent") << id;
            std::size_t i = 0;
            json_array_foreach(s.get("device"), i, v) {
                ASSERT_LT(i, g_devices.size());
                const Device& device = g_devices[i];
                if (Row(v).get("ips")) {
                    const macaddr mac(Row(v).str("mac"));
                    nk::ip_set expected;
                    for (const std::string& ip : Row(v).strs("ips"))
                        expected.insert(address(ip));
                    EXPECT_EQ(device.local.macips.get_ips(mac, true), expected);
                    nk::devMgmt::Device record;
                    record.device_id = device.cloud.device_id;
                    ASSERT_TRUE(record.load_from_shmem(false, true));
                    EXPECT_EQ(nk::ip_set(record.macips[mac].begin(), record.macips[mac].end()),
                              expected)
                        << "stored";
                }
                expect_member(Row(v), "onguest", device.cloud.onguest);
                expect_member(Row(v), "onbox", device.local.onbox_info.onbox);
                expect_member(Row(v), "to_send", device.local.onbox_info.to_send);
                expect_member(Row(v), "avahi", device.local.avahi_info.current.size());
                expect_member(Row(v), "avahi_pending", device.local.avahi_info.pending);
                expect_member(Row(v), "upnp", device.local.upnp_info.current.size());
                expect_member(Row(v), "netbios", device.local.netbios_info.current.size());
                expect_member(Row(v), "netbios_kept", device.local.netbios_info.kept.size());
                expect_member(Row(v), "netbios_pending", device.local.netbios_info.pending);
                if (Row(v).get("name")) {
                    EXPECT_EQ(device.cloud.box_detected_name, Row(v).str("name"));
                }
            }
            json_array_foreach(s.get("real_macs"), i, v) {
                EXPECT_EQ(get_real_mac(macaddr(Row(v).str("mac")), address(Row(v).str("ip"))),
                          macaddr(Row(v).str("real")));
            }
            if (s.get("user_agents")) {
                std::vector<std::string> agents;
                const std::lock_guard lock(g_user_agents_mutex);
                for (const auto& agent : g_user_agents)
                    agents.push_back(agent.mac.to_string() + " " + agent.user_agent);
                EXPECT_EQ(agents, s.strs("user_agents"));
            }
            const std::lock_guard lock(g_mangled_macs_mutex);
            expect_member(s, "mangled", static_cast<long long>(g_mangled_macs.size()));
        }
    }
};

TEST_F(CollectorMessagesTest, MalformedMessagesChangeNothing) {
    play("malformed");
}
TEST_F(CollectorMessagesTest, ADeviceFromItsFirstLeaseUntilItGoesOffline) {
    play("lifecycle");
}
TEST_F(CollectorMessagesTest, LeasesTheDaemonMustNotTakeAndMangledMacs) {
    play("ignored");
}

// mDNS, UPnP and NetBIOS reports join the device holding the address, up to the caps.
TEST_F(CollectorMessagesTest, ServiceReportsJoinTheDeviceHoldingTheAddress) {
    play("services");
}

TEST_F(CollectorMessagesTest, ServiceReportsFeatureOffIgnoredAndFlushSetsThemAside) {
    play("services_off");
}

}  // namespace

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
    for (const Row& row : nk::test::rows("netbios_tables")) {
        const bool ok = row.flag("ok");
        SCOPED_TRACE(row.text());
        NetbiosTable read = table;
        EXPECT_EQ(read.from_json(row.get("json")), ok);
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
