// The lease-file readers on files written by the real servers (dnsmasq on the simulated LAN, ISC
// dhcpd with dhclient and udhcpc clients), on every prefix of them, and on damaged ones.
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>

#include <ctime>
#include <fstream>
#include <set>
#include <string>

#include <nk/setmgmt.h>

#include "dnsmasq_leases.h"
#include "isc_leases.h"
#include "lease_event_log.h"
#include "lease_file.h"
#include "temp_dir.h"

namespace {

using namespace nk::collector;

std::string data(const std::string& name) {
    std::string text;
    EXPECT_TRUE(read_file(std::string(NK_COLLECTOR_DATA) + "/" + name, text)) << name;
    return text;
}

// "mac ip host" of each lease, "-" for no MAC, so that a table can state them.
std::set<std::string> shown(const LeaseFile& file) {
    std::set<std::string> out;
    for (const Lease& l : file.leases) {
        out.insert((l.mac.is_valid() ? l.mac.to_string() : "-") + " " + l.ip.to_string() + " " +
                   l.host);
    }
    return out;
}

// Runs the lease script as dnsmasq does: the action and the client in its arguments, the rest
// in its environment.
int run_lease_script(std::vector<std::string> args, std::vector<std::string> env) {
    args.insert(args.begin(), NK_LEASE_SCRIPT);
    env.push_back("PATH=/usr/bin:/bin");
    const auto pointers = [](std::vector<std::string>& strings) {
        std::vector<char*> out;
        for (std::string& s : strings)
            out.push_back(s.data());
        out.push_back(nullptr);
        return out;
    };
    std::vector<char*> argv = pointers(args);
    std::vector<char*> envp = pointers(env);
    pid_t pid = 0;
    if (::posix_spawn(&pid, NK_LEASE_SCRIPT, nullptr, nullptr, argv.data(), envp.data()) != 0)
        return -1;
    int status = 0;
    ::waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::time_t utc(int y, int mo, int d, int h, int mi) {
    std::tm tm{};
    tm.tm_year = y - 1900;
    tm.tm_mon = mo - 1;
    tm.tm_mday = d;
    tm.tm_hour = h;
    tm.tm_min = mi;
    return ::timegm(&tm);
}

TEST(LeaseReaders, RealFiles) {
    const std::string dnsmasq = data("dnsmasq.leases");
    const std::string isc = data("dhcpd.leases");
    // read_lease_text finds each format by itself.
    const struct {
        const std::string& text;
        std::time_t now;
        std::set<std::string> leases;
    } cases[] = {
        {dnsmasq,
         1795400000,
         {"00:00:5e:00:53:9d 198.51.100.148 tv", "00:00:5e:00:53:d7 192.0.2.106 visitor",
          "02:45:57:de:3b:da 198.51.100.180 phone", "00:00:5e:00:53:3a 198.51.100.149 laptop",
          "- 2001:db8:1::117 laptop", "- 2001:db8:2::16b visitor", "- 2001:db8:1::1ed phone"}},
        // Leases past their expiry are gone; the server just has not rewritten its file yet.
        {dnsmasq,
         1795412250,
         {"00:00:5e:00:53:9d 198.51.100.148 tv", "02:45:57:de:3b:da 198.51.100.180 phone"}},
        // The journal's last block of .102 is the client's new MAC; .100 was released.
        {isc,
         utc(2026, 11, 23, 4, 30),
         {"00:00:5e:00:53:22 198.51.100.101 printer", "02:5e:10:77:42:9a 198.51.100.102 phone"}},
        {isc, utc(2026, 11, 23, 5, 21), {}},
    };
    for (const auto& c : cases) {
        const LeaseFile file = read_lease_text(c.text, c.now);
        EXPECT_EQ(shown(file), c.leases) << c.now;
        EXPECT_TRUE(file.problems.empty()) << c.now;
        EXPECT_FALSE(file.torn);
    }

    // Client identifiers as the servers stored them: a DHCPv6 lease's is the client's DUID.
    const LeaseFile leases = read_dnsmasq_leases(dnsmasq, 0);
    EXPECT_EQ(client_identity(leases.leases[2].client_id),
              client_identity(leases.leases[6].client_id));
    EXPECT_EQ(duid_mac(leases.leases[4].client_id), nk::sockutl::macaddr("00:00:5e:00:53:3a"));
    EXPECT_EQ(duid_mac(leases.leases[5].client_id), nk::sockutl::macaddr("00:00:5e:00:53:d7"));
    EXPECT_TRUE(leases.leases[3].client_id.empty());
    const LeaseFile journal = read_isc_leases(isc, utc(2026, 11, 23, 4, 30));
    EXPECT_EQ(journal.leases[1].client_id, std::string("\xff\0\0\0\x01\0\x03\0\x01\0\0", 11));
}

// A reader that meets a file mid-write keeps whole records only, and says the file is torn
// unless the cut fell between two records.
TEST(LeaseReaders, EveryPrefixOfARealFile) {
    const std::string dnsmasq = data("dnsmasq.leases");
    const std::set<std::string> all = shown(read_dnsmasq_leases(dnsmasq, 0));
    for (std::size_t n = 0; n <= dnsmasq.size(); ++n) {
        const LeaseFile file = read_dnsmasq_leases(dnsmasq.substr(0, n), 0);
        const bool at_line_end = n == 0 || dnsmasq[n - 1] == '\n';
        EXPECT_EQ(file.torn, !at_line_end) << n;
        EXPECT_TRUE(file.problems.empty()) << n;
        for (const std::string& lease : shown(file))
            EXPECT_EQ(all.count(lease), 1u) << n << ": " << lease;
    }
    const std::string isc = data("dhcpd.leases");
    for (std::size_t n = 0; n <= isc.size(); ++n) {
        const std::string prefix = isc.substr(0, n);
        const LeaseFile file = read_isc_leases(prefix, 0);
        EXPECT_TRUE(file.problems.empty()) << n;
        const std::size_t open = prefix.rfind("\nlease ");
        const bool inside_block =
            open != std::string::npos && prefix.find('}', open) == prefix.npos;
        if (inside_block) {
            EXPECT_TRUE(file.torn) << n;
        }
    }
}

TEST(LeaseReaders, DamagedFilesKeepTheirGoodRecords) {
    const std::string dnsmasq =
        "1795412298 00:00:5e:00:53:9d 198.51.100.148 tv *\n"
        "garbage\n"
        "1795412298 00:00:5e:00:53:9d 198.51.100.300 bad-ip *\n"
        "x795412298 00:00:5e:00:53:9e 198.51.100.149 bad-expiry *\n"
        "1795412298 zz:00:5e:00:53:9e 198.51.100.149 bad-mac *\n"
        "1795412298 20-00:5e:00:53:9e 198.51.100.149 infiniband *\n"
        "1795412298 00:00:5e:00:53:9f 198.51.100.150 bad-id 01:zz\n"
        "1795412298 00:00:5e:00:53:9f 198.51.100.150 too many fields *\n"
        "0 00:00:5e:00:53:a0 198.51.100.151 forever *\n"
        "duid 00:01\n"
        "1795412298 1 198.51.100.152 v4-in-v6 *\n"
        "1795412298 1 2001:db8:1::5 ok 00:03:00:01:00:00:5e:00:53:a0\n";
    const LeaseFile file = read_dnsmasq_leases(dnsmasq, 1795400000);
    EXPECT_EQ(shown(file), (std::set<std::string>{"00:00:5e:00:53:9d 198.51.100.148 tv",
                                                  "00:00:5e:00:53:a0 198.51.100.151 forever",
                                                  "- 2001:db8:1::5 ok"}));
    std::set<int> lines;
    for (const LeaseProblem& p : file.problems)
        lines.insert(p.line);
    EXPECT_EQ(lines, (std::set<int>{2, 3, 4, 5, 6, 7, 8, 11}));

    const std::string isc =
        "lease 198.51.100.7 { binding state active; hardware ethernet 00:00:5e:00:53:07;\n"
        "  ends never; client-hostname \"a\\\"b\"; }\n"
        "}\n"
        "lease not-an-ip { binding state active; hardware ethernet 00:00:5e:00:53:08; }\n"
        "lease 198.51.100.9 { binding state active; }\n"
        "lease 198.51.100.10 { ends epoch 1; hardware ethernet 00:00:5e:00:53:0a; }\n"
        "lease 198.51.100.11 { ends 3 2026/13/40 99:00:00; hardware ethernet 00:00:5e:00:53:0b;\n"
        "  uid 01:00:00:5e:00:53:0b; option agent.circuit-id \"x\"; on expiry { set a = 1; } }\n"
        "failover peer \"p\" { primary; }\n";
    const LeaseFile journal = read_isc_leases(isc, 1795400000);
    EXPECT_EQ(shown(journal), (std::set<std::string>{"00:00:5e:00:53:07 198.51.100.7 a\"b",
                                                     "00:00:5e:00:53:0b 198.51.100.11 "}));
    EXPECT_EQ(journal.problems.size(), 3u);  // the stray '}', the bad address, no MAC
    EXPECT_FALSE(journal.torn);
    EXPECT_EQ(read_isc_leases(isc + "lease 198.51.100.12 { hardware \"unterminated", 0).torn, true);

    const LeaseFile unknown = read_lease_text(std::string("\x01\x02\x03udhcpd", 9), 0);
    EXPECT_TRUE(unknown.leases.empty());
    ASSERT_EQ(unknown.problems.size(), 1u);
    EXPECT_EQ(unknown.problems[0].what, "unknown lease file format");
    EXPECT_TRUE(read_lease_text(" \n\n", 0).problems.empty());
}

// Whatever bytes a client sends, the script's line gives them back as dnsmasq told them; the
// collector follows the file as it grows and after the script empties it.
TEST(LeaseReaders, LeaseScriptLinesReadBack) {
    nk::test::TempDir dir;
    const nk::test::ScopedEnv settings("NK_SETTINGS_DIR", dir.path());
    ASSERT_EQ(nk::setMgmt::init(), 0);
    const std::string events = dir / "events";
    ASSERT_EQ(nk::setMgmt::setKey(kLeaseEventsKey, events), 0);
    // More than the script keeps: it starts the file again.
    std::ofstream(events) << std::string(300000, 'x') << "\n";
    LeaseEventLog log;
    ASSERT_TRUE(log.open());
    log.refresh();
    log.read();

    const std::string mac = "02:45:57:de:3b:da";
    const std::string odd = std::string("a\"b\\c\x01\n\xff", 8);
    const struct {
        const char* what;
        std::vector<std::string> args;
        std::vector<std::string> env;
        bool line;
        std::string host;
        DhcpFingerprint fingerprint;
    } cases[] = {
        {"a host name of 255 bytes",
         {"add", mac, "198.51.100.151"},
         {"DNSMASQ_SUPPLIED_HOSTNAME=" + std::string(255, 'a'),
          "DNSMASQ_REQUESTED_OPTIONS=1,121,3,6", "DNSMASQ_CLIENT_ID=01:" + mac},
         true,
         std::string(255, 'a'),
         {"1,121,3,6", ""}},
        {"quotes, a backslash, control characters, a byte of no charset",
         {"add", mac, "198.51.100.151"},
         {"DNSMASQ_SUPPLIED_HOSTNAME=" + odd, "DNSMASQ_VENDOR_CLASS=" + odd,
          "DNSMASQ_REQUESTED_OPTIONS=1,3"},
         true,
         odd,
         {"1,3", odd}},
        {"an empty option list",
         {"old", mac, "198.51.100.151"},
         {"DNSMASQ_REQUESTED_OPTIONS="},
         true,
         "",
         {}},
        {"an option list that is not one",
         {"old", mac, "198.51.100.151"},
         {"DNSMASQ_REQUESTED_OPTIONS=1,3;reboot"},
         true,
         "",
         {}},
        {"a DHCPv6 lease",
         {"add", "00:03:00:01:" + mac, "2001:db8:1::1ab"},
         {"DNSMASQ_MAC=" + mac},
         true,
         "",
         {}},
        {"a client of another hardware type",
         {"add", "06-01:23:45:67:89:ab", "198.51.100.9"},
         {},
         false,
         "",
         {}},
        {"another action", {"tftp", "1024", "198.51.100.9", "/srv/boot"}, {}, false, "", {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        std::vector<std::string> env = c.env;
        env.push_back("NK_DHCP_EVENTS=" + events);
        ASSERT_EQ(run_lease_script(c.args, env), 0);
        std::string text;
        ASSERT_TRUE(read_file(events, text));
        const std::size_t start = text.rfind('\n', text.size() - 2);
        const std::string last = text.substr(start == std::string::npos ? 0 : start + 1);
        std::string why;
        const std::optional<LeaseEvent> event =
            read_lease_event(last.substr(0, last.size() - 1), why);
        EXPECT_EQ(log.read(), c.line);
        if (!c.line)
            continue;
        ASSERT_TRUE(event) << why << ": " << last;
        EXPECT_EQ(event->host, c.host);
        EXPECT_EQ(event->fingerprint, c.fingerprint);
    }
    const ClientRequest* request = log.request_of(nk::sockutl::macaddr(mac));
    ASSERT_NE(request, nullptr);
    EXPECT_EQ(request->host, odd);
    EXPECT_EQ(request->client_id, *hex_bytes("01:" + mac));
    EXPECT_EQ(log.mac_of_duid(*hex_bytes("00:03:00:01:" + mac)), nk::sockutl::macaddr(mac));
    nk::setMgmt::uninit();
}

}  // namespace
