// nksifter as a real process: its command line, and on a simulated LAN of the test's own
// (scripts/lan in network namespaces, needs root) the events a real dhclient and curl cause,
// as a subscriber on a real broker receives them.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <nk/json.h>
#include <nk/nkex.h>
#include <nk/util.h>

#include "bus_peer.h"
#include "daemon_process.h"
#include "lan.h"
#include "tables.h"
#include "temp_dir.h"
#include "test_broker.h"
#include "wait.h"

namespace {

using namespace std::chrono_literals;
using Topics = std::vector<const char*>;

TEST(SifterProcessTest, CommandLine) {
    // As nobody when the test runs as root.
    const char* unprivileged =
        ::geteuid() == 0 ? "setpriv --reuid=65534 --regid=65534 --clear-groups " : "";
    nk::test::check_commands(NK_SNIFFER_DATA "/command_lines.tsv",
                             {{"nksifter", NK_NKSIFTER_BIN}, {"unprivileged", unprivileged}});
}

class SifterLanTest : public ::testing::Test {
protected:
    void SetUp() override {
        const std::string why =
            nk::test::Lan::unavailable({"dnsmasq", "dhclient", "busybox", "curl"});
        if (!why.empty())
            GTEST_SKIP() << why;
        ASSERT_EQ(::mkdir(settings_.c_str(), 0755), 0);
        ASSERT_TRUE(broker_.start());
        subscriber_.emplace("sifter-test", Topics{"sifter_dhcp_payload", "sifter_user_agent"});
        ASSERT_TRUE(subscriber_->handle());
        ASSERT_TRUE(lan_.up("--empty"));
    }

    void TearDown() override {
        sifter_.stop(SIGTERM);
        lan_.down();
    }

    int nkset(const std::string& command) {
        return nk::test::run_command(std::string(NK_NKSET_BIN) + " --settings " + settings_ + " " +
                                     command);
    }
    int browse(const std::string& agent) {
        return lan_.run("exec laptop curl -s -o /dev/null -A '" + agent + "' http://203.0.113.1/");
    }

    nk::test::TempDir dir_;
    std::string settings_ = dir_ / "settings";
    nk::test::TestBroker broker_{dir_.path()};
    nk::test::ScopedEnv broker_env_{"NKEX_BROKER", broker_.address()};
    std::optional<nk::test::Peer> subscriber_;
    nk::test::Lan lan_{NK_LAN_SCRIPT, dir_ / "lan"};
    nk::test::DaemonProcess sifter_;
};

TEST_F(SifterLanTest, DhcpAndUserAgentsOfARealClientReachTheBus) {
    // It follows the roles: the LAN bridge is added once it runs.
    ASSERT_EQ(nkset("set /network/interfaces/roles/wan0 wan"), 0);
    ASSERT_EQ(nkset("set /network/interfaces/roles/br-guest guest"), 0);
    ASSERT_TRUE(
        sifter_.start({"/usr/sbin/ip", "netns", "exec", lan_.box(), NK_NKSIFTER_BIN, "--settings",
                       settings_, "--broker", broker_.address(), "--log-level", "3"}));
    ASSERT_TRUE(sifter_.wait_for_line("capturing on br-guest"));
    ASSERT_EQ(nkset("set /network/interfaces/roles/br-lan lan"), 0);
    ASSERT_TRUE(sifter_.wait_for_line("capturing on br-lan", 15s));
    EXPECT_EQ(sifter_.count_lines("capturing on wan0"), 0);

    ASSERT_EQ(lan_.run("add laptop"), 0);
    const std::string mac = lan_.first_line("exec laptop cat /sys/class/net/eth0/address");
    ASSERT_TRUE(nk::test::wait_until(
        [&] { return !subscriber_->json("sifter_dhcp_payload", mac).empty(); }, 30s));
    const nk::json_ptr dhcp = std::move(subscriber_->json("sifter_dhcp_payload", mac).front());
    EXPECT_STREQ(nk::json_string_member(dhcp.get(), "netif"), "br-lan");
    EXPECT_STREQ(nk::json_string_member(dhcp.get(), "source_mac"), mac.c_str());
    // The first is a DISCOVER (v4) or a SOLICIT (v6): none was held back. What the decoder makes
    // of each message is checked on captured frames.
    const auto udp = nk::base64_decode(nk::json_string_member(dhcp.get(), "raw_payload"));
    ASSERT_TRUE(udp && udp->size() > 8);
    EXPECT_TRUE(json_integer_value(json_object_get(dhcp.get(), "version")) == 4
                    ? udp->find(std::string("\x35\x01\x01", 3), 8 + 240) != std::string::npos
                    : (*udp)[8] == 1);

    // The same agent twice within the minute is one event; the next agent shows both went by.
    // Once the laptop has its address and route, that is.
    ASSERT_TRUE(nk::test::wait_until([&] { return browse("nk-test-agent/1.0") == 0; }, 30s));
    ASSERT_EQ(browse("nk-test-agent/1.0"), 0);
    ASSERT_EQ(browse("nk-test-agent/2.0"), 0);
    ASSERT_TRUE(nk::test::wait_until(
        [&] { return !subscriber_->json("sifter_user_agent", "nk-test-agent/2.0").empty(); }, 10s));
    const auto first = subscriber_->json("sifter_user_agent", "nk-test-agent/1.0");
    ASSERT_EQ(first.size(), 1u);
    EXPECT_STREQ(nk::json_string_member(first[0].get(), "src_netif"), "br-lan");
    EXPECT_STREQ(nk::json_string_member(first[0].get(), "src_mac"), mac.c_str());
    EXPECT_STREQ(nk::json_string_member(first[0].get(), "user_agent"), "nk-test-agent/1.0");
    EXPECT_STREQ(nk::json_string_member(first[0].get(), "src_ip"), lan_.ipv4_of("laptop").c_str());

    EXPECT_EQ(sifter_.stop(SIGTERM), 0);
    EXPECT_TRUE(sifter_.wait_for_line("stopping", 0s));
}

}  // namespace
