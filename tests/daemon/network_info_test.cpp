// The interface table built from a real store and real kernel interfaces in a private netns.
#include "network_info.h"

#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <future>

#include <nk/devmgmt.h>
#include <nk/io.h>
#include <nk/setmgmt.h>

#include "daemon_state.h"
#include "device_storage.h"
#include "temp_dir.h"
#include "test_data.h"

namespace {

constexpr const char* kLanMac = "02:00:00:00:07:01";
const std::string kConfig = "/network/interfaces/config/";
const std::string kRefresh = "/network/interfaces/config_refresh";

std::string value_of(const std::string& key) {
    std::string value;
    return nk::setMgmt::getKey(key, value) < 0 ? "<absent>" : value;
}

bool update() {
    std::vector<nk::netMgmt::Interface> interfaces;
    return update_network_info(interfaces);
}

class NetworkInfoTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (geteuid() != 0 || nk::test::run_command("ip netns list >/dev/null 2>&1") != 0)
            GTEST_SKIP() << "needs root and the ip tool to make a network namespace";
        own_ns_.reset(::open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC));
        if (!own_ns_ || ::unshare(CLONE_NEWNET) != 0)
            GTEST_SKIP() << "network namespaces are not available";
        in_private_ns_ = true;
        if (nk::test::run_command("sh " + nk::test::data_dir() +
                                  "/interfaces.sh >/dev/null 2>&1") != 0)
            GTEST_SKIP() << "veth interfaces cannot be made here";
        ASSERT_EQ(nk::setMgmt::init(), 0);
        for (const auto& [name, role] :
             {std::pair{"lan0", "lan"}, {"guest0", "guest"}, {"dmz0", "dmz"}, {"lo", "wan"}}) {
            ASSERT_EQ(nk::setMgmt::setKey(std::string("/network/interfaces/roles/") + name, role),
                      0);
        }
        ASSERT_EQ(nk::setMgmt::setKey("/daemons/nkcloudd/device_id", "box-1"), 0);
    }
    void TearDown() override {
        nk::devMgmt::close_table();
        nk::setMgmt::uninit();
        if (in_private_ns_) {
            ASSERT_EQ(::setns(own_ns_.get(), CLONE_NEWNET), 0);
        }
    }

    nk::test::TempDir settings_;
    nk::test::TempDir devices_;
    nk::test::ScopedEnv settings_env_{"NK_SETTINGS_DIR", settings_.path()};
    nk::test::ScopedEnv devices_env_{"NK_DEVMGMT_DIR", devices_.path()};
    nk::io::unique_fd own_ns_;
    bool in_private_ns_ = false;
};

TEST_F(NetworkInfoTest, PublishesAndClassifiesInterfaces) {
    std::vector<nk::netMgmt::Interface> interfaces;
    ASSERT_TRUE(update_network_info(interfaces));
    EXPECT_EQ(g_device_id, "box-1");
    ASSERT_EQ(interfaces.size(), 3u) << "dmz0 has no known role";

    // What is published in the store, and how the table answers queries.
    for (const nk::test::Row& row : nk::test::rows("interfaces_published")) {
        const std::string key = row.str("key"), q = row.str("query"), arg = row.str("arg");
        if (!key.empty()) {
            EXPECT_EQ(value_of(key), row.str("value")) << key;
            continue;
        }
        const bool is = q == "in_subnet"  ? is_in_subnet(arg)
                        : q == "in_guest" ? is_in_guest(address(arg))
                        : q == "wan"      ? is_wan(arg)
                        : q == "guest"    ? is_guest(arg)
                                          : is_on_box(arg);
        EXPECT_EQ(is, row.flag("is")) << q << " " << arg;
    }

    const auto box = load_device_from_storage("box-1");
    ASSERT_TRUE(box.has_value());
    EXPECT_EQ(box->local.macips.get_ips(macaddr(kLanMac), true),
              (nk::ip_set{address("192.168.7.1"), address("fd00::1")}));
}

TEST_F(NetworkInfoTest, RepublishesOnlyOnChange) {
    ASSERT_TRUE(update());
    ASSERT_EQ(nk::setMgmt::deleteKey(kRefresh), 0);
    EXPECT_FALSE(update());
    EXPECT_EQ(value_of(kRefresh), "<absent>");

    ASSERT_EQ(nk::test::run_command("ip addr add 192.168.7.9/24 dev lan0"), 0);
    EXPECT_TRUE(update());
    EXPECT_EQ(value_of(kRefresh), "1");
    EXPECT_EQ(value_of(kConfig + "lan0/ipv4"), "192.168.7.1/24,192.168.7.9/24");
}

// The bus thread must not stall behind an update for a MAC that cannot be on the BOX.
TEST(NetworkInfoQueries, MalformedMacAnsweredWithoutTheTable) {
    std::unique_lock lock(g_interfaces_mutex);
    auto answer = std::async(std::launch::async, [] { return is_on_box("02:00:zz"); });
    const auto status = answer.wait_for(std::chrono::seconds(10));
    lock.unlock();
    ASSERT_EQ(status, std::future_status::ready);
    EXPECT_FALSE(answer.get());
}

}  // namespace
