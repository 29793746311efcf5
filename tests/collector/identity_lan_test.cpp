// A client that rotates its MAC, on a LAN of the test's own: a real dnsmasq running the lease
// script, real udhcpc clients that send a type 1 identifier made of their MAC, as phones do,
// and the collector. Needs root.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <fstream>
#include <string>
#include <vector>

#include "daemon_process.h"
#include "lan.h"
#include "temp_dir.h"
#include "wait.h"

namespace {

using namespace std::chrono_literals;
using nk::test::run_command;

// The namespaces made here, their processes stopped and the namespaces removed however the
// test ends.
class Namespaces {
public:
    explicit Namespaces(std::string prefix) : prefix_(std::move(prefix)) {}
    ~Namespaces() {
        for (const std::string& ns : made_) {
            run_command("pids=$(ip netns pids " + ns + "); [ -z \"$pids\" ] || kill $pids");
            run_command("ip netns del " + ns);
        }
    }
    Namespaces(const Namespaces&) = delete;
    Namespaces& operator=(const Namespaces&) = delete;

    std::string add(const std::string& name) {
        const std::string ns = prefix_ + "-" + name;
        if (run_command("ip netns add " + ns) == 0)
            made_.push_back(ns);
        return ns;
    }

private:
    std::string prefix_;
    std::vector<std::string> made_;
};

class IdentityLanTest : public ::testing::Test {
protected:
    void SetUp() override {
        const std::string why = nk::test::Lan::unavailable({"dnsmasq", "busybox"});
        if (!why.empty())
            GTEST_SKIP() << why;
        for (const std::string& step : {"ip -n " + box_ + " link add br-lan type bridge",
                                        "ip -n " + box_ + " addr add 198.51.100.1/24 dev br-lan",
                                        "ip -n " + box_ + " link set br-lan up"}) {
            ASSERT_EQ(run_command(step), 0) << step;
        }
        std::ofstream(dir_ / "udhcpc.sh")
            << "#!/bin/sh\ncase \"$1\" in bound|renew) ip addr flush dev \"$interface\"; "
               "ip addr add \"$ip/${mask:-24}\" dev \"$interface\";; esac\n";
        ASSERT_EQ(::chmod((dir_ / "udhcpc.sh").c_str(), 0755), 0);
        ASSERT_TRUE(dnsmasq_.start(
            {"/usr/sbin/ip", "netns", "exec", box_, "env", "NK_DHCP_EVENTS=" + (dir_ / "events"),
             "dnsmasq", "--keep-in-foreground", "--conf-file=/dev/null", "--port=0",
             "--bind-dynamic", "--interface=br-lan", "--dhcp-authoritative", "--no-ping",
             "--log-facility=-", "--dhcp-range=198.51.100.100,198.51.100.199,1h",
             "--dhcp-leasefile=" + (dir_ / "leases"), "--dhcp-script=" NK_LEASE_SCRIPT}));
        set("/network/interfaces/roles/br-lan", "lan");
        set("/network/dhcp/lease_files", dir_ / "leases");
        set("/network/dhcp/lease_events", dir_ / "events");
        ASSERT_TRUE(collector_.start(
            {"/bin/sh", "-c",
             "exec ip netns exec " + box_ + " " NK_NKDEVINFO_BIN " -internal --settings " +
                 (dir_ / "settings") + " --log-level 4 >" + (dir_ / "out")}));
    }

    void TearDown() override {
        collector_.stop(SIGTERM);
        dnsmasq_.stop(SIGTERM);
    }

    void set(const std::string& key, const std::string& value) {
        nk::test::write_setting(dir_ / "settings", key, value);
    }

    // A client on the LAN bridge with this MAC; false when it could not be made.
    bool add_client(const std::string& name, const std::string& mac) {
        const std::string ns = namespaces_.add(name);
        const std::string port = "v-" + name;
        return run_command("ip -n " + box_ + " link add " + port +
                           " type veth peer name eth0 netns " + ns + " && ip -n " + box_ +
                           " link set " + port + " master br-lan up && ip -n " + ns +
                           " link set eth0 address " + mac + " up") == 0;
    }
    // Takes a lease under this host name, as every such client asks: the same options.
    bool lease(const std::string& name, const std::string& host) {
        return run_command("ip netns exec " + prefix_ + "-" + name +
                           " busybox udhcpc -i eth0 -q -n -t 10 -T 1 -s " + (dir_ / "udhcpc.sh") +
                           " -x hostname:" + host + " -V nk-phone >/dev/null 2>&1") == 0;
    }
    // Leaves without a release and comes back with another MAC, as a phone does.
    bool rotate(const std::string& name, const std::string& mac) {
        const std::string ns = prefix_ + "-" + name;
        return run_command("ip -n " + ns + " addr flush dev eth0 && ip -n " + ns +
                           " link set eth0 down && ip -n " + ns + " link set eth0 address " + mac +
                           " up") == 0;
    }
    // Whether some "leases" line holds every one of `parts`.
    bool said(const std::vector<std::string>& parts) {
        return nk::test::has_line_with(dir_ / "out", parts);
    }

    nk::test::TempDir dir_;
    std::string prefix_ = "nkid" + std::to_string(::getpid());
    Namespaces namespaces_{prefix_};
    std::string box_ = namespaces_.add("box");
    nk::test::DaemonProcess dnsmasq_;
    nk::test::DaemonProcess collector_;
};

TEST_F(IdentityLanTest, ARotatedPhoneStaysOneDeviceAndTwoOnlineTogetherStayTwo) {
    ASSERT_TRUE(add_client("phone", "00:00:5e:00:53:10"));
    ASSERT_TRUE(lease("phone", "Lucas-iPhone"));
    ASSERT_TRUE(nk::test::wait_until([&] { return said({"\"mac\":\"00:00:5e:00:53:10\""}); }, 10s));

    // Its old lease stays; the collector checks that nobody answers there any more.
    ASSERT_TRUE(rotate("phone", "02:45:57:de:3b:da"));
    ASSERT_TRUE(lease("phone", "Lucas-iPhone"));
    EXPECT_TRUE(nk::test::wait_until(
        [&] {
            return said(
                {"\"real_mac\":\"00:00:5e:00:53:10\"", "\"fake_mac\":\"02:45:57:de:3b:da\""});
        },
        20s));
    EXPECT_TRUE(collector_.wait_for_line(
        "02:45:57:de:3b:da is 00:00:5e:00:53:10: host name 'lucas-iphone' and DHCP fingerprint"));
    EXPECT_FALSE(said({"\"mac\":\"02:45:57:de:3b:da\""}));

    // The same name and fingerprint on a second device while the first still answers.
    ASSERT_TRUE(add_client("tablet", "00:00:5e:00:53:20"));
    ASSERT_TRUE(lease("tablet", "Lucas-iPad"));
    ASSERT_TRUE(nk::test::wait_until([&] { return said({"\"mac\":\"00:00:5e:00:53:20\""}); }, 10s));
    ASSERT_TRUE(add_client("twin", "02:00:5e:00:53:33"));
    ASSERT_TRUE(lease("twin", "Lucas-iPad"));
    EXPECT_TRUE(nk::test::wait_until([&] { return said({"\"mac\":\"02:00:5e:00:53:33\""}); }, 20s));
    EXPECT_TRUE(
        collector_.wait_for_line("02:00:5e:00:53:33 is a device of its own: host name "
                                 "'lucas-ipad' and DHCP fingerprint, but"));
    EXPECT_FALSE(said({"\"fake_mac\":\"02:00:5e:00:53:33\""}));
    EXPECT_EQ(collector_.count_lines("ERROR"), 0) << collector_.log();
}

}  // namespace
