// The lease-file readers on files written by the real servers (dnsmasq on the simulated LAN, ISC
// dhcpd with dhclient and udhcpc clients), on every prefix of them, and on damaged ones.
#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>

#include <nk/setmgmt.h>

#include "dnsmasq_leases.h"
#include "isc_leases.h"
#include "lease_event_log.h"
#include "lease_file.h"
#include "tables.h"
#include "temp_dir.h"

namespace {

using namespace nk::collector;

std::string data(const std::string& name) {
    return nk::test::read_data(NK_COLLECTOR_DATA "/" + name);
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
// in an environment of its own.
int run_lease_script(const std::vector<std::string>& args, const std::vector<std::string>& env) {
    const auto quoted = [](const std::string& text) {
        std::string out = " '";
        for (const char c : text)
            out += c == '\'' ? std::string("'\\''") : std::string(1, c);
        return out + "'";
    };
    std::string command = "env -i PATH=/usr/bin:/bin";
    for (const std::string& e : env)
        command += quoted(e);
    command += " " NK_LEASE_SCRIPT;
    for (const std::string& a : args)
        command += quoted(a);
    return nk::test::run_command(command);
}

TEST(LeaseReaders, RealFiles) {
    for (const auto& row : nk::test::read_table(NK_COLLECTOR_DATA "/real_leases.tsv")) {
        std::set<std::string> leases;
        std::istringstream listed(row.size() > 2 ? row[2] : "");
        for (std::string lease; std::getline(listed, lease, ',');)
            leases.insert(lease.substr(lease.find_first_not_of(' ')));
        const LeaseFile file = read_lease_text(data(row[0]), std::stol(row[1]));
        EXPECT_EQ(shown(file), leases) << row[0] << " " << row[1];
        EXPECT_TRUE(file.problems.empty()) << row[0] << " " << row[1];
        EXPECT_FALSE(file.torn);
    }

    // Client identifiers as the servers stored them: a DHCPv6 lease's is the client's DUID.
    const LeaseFile leases = read_dnsmasq_leases(data("dnsmasq.leases"), 0);
    EXPECT_EQ(client_identity(leases.leases[2].client_id),
              client_identity(leases.leases[6].client_id));
    EXPECT_EQ(duid_mac(leases.leases[4].client_id), nk::sockutl::macaddr("00:00:5e:00:53:3a"));
    EXPECT_EQ(duid_mac(leases.leases[5].client_id), nk::sockutl::macaddr("00:00:5e:00:53:d7"));
    EXPECT_TRUE(leases.leases[3].client_id.empty());
    const LeaseFile journal = read_isc_leases(data("dhcpd.leases"), 1795408200);
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
    const LeaseFile file = read_dnsmasq_leases(data("damaged-dnsmasq.leases"), 1795400000);
    EXPECT_EQ(shown(file), (std::set<std::string>{"00:00:5e:00:53:9d 198.51.100.148 tv",
                                                  "00:00:5e:00:53:a0 198.51.100.151 forever",
                                                  "- 2001:db8:1::5 ok"}));
    std::set<int> lines;
    for (const LeaseProblem& p : file.problems)
        lines.insert(p.line);
    EXPECT_EQ(lines, (std::set<int>{2, 3, 4, 5, 6, 7, 8, 11}));

    const std::string isc = data("damaged-dhcpd.leases");
    const LeaseFile journal = read_isc_leases(isc, 1795400000);
    EXPECT_EQ(shown(journal), (std::set<std::string>{"00:00:5e:00:53:07 198.51.100.7 a\"b",
                                                     "00:00:5e:00:53:0b 198.51.100.11 "}));
    EXPECT_EQ(journal.problems.size(), 3u);  // the stray '}', the bad address, no MAC
    EXPECT_FALSE(journal.torn);
    EXPECT_TRUE(read_isc_leases(isc + "lease 198.51.100.12 { hardware \"unterminated", 0).torn);

    const LeaseFile unknown = read_lease_text(std::string("\x01\x02\x03udhcpd", 9), 0);
    EXPECT_TRUE(unknown.leases.empty());
    EXPECT_EQ(unknown.problems.size(), 1u);
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
    const std::map<std::string, std::string> values{
        {"mac", mac}, {"odd", odd}, {"long", std::string(255, 'a')}};
    // The row's blank-separated words, each expanded.
    const auto words = [&](const std::string& text) {
        std::vector<std::string> out;
        std::istringstream in(text);
        for (std::string word; in >> word;)
            out.push_back(nk::test::expand(word, values));
        return out;
    };
    for (std::vector<std::string> row :
         nk::test::read_table(NK_COLLECTOR_DATA "/lease_script.tsv")) {
        row.resize(7);
        SCOPED_TRACE(row[0]);
        std::vector<std::string> env = words(row[2]);
        env.push_back("NK_DHCP_EVENTS=" + events);
        ASSERT_EQ(run_lease_script(words(row[1]), env), 0);
        std::string written;
        ASSERT_TRUE(read_file(events, written));
        const std::size_t start = written.rfind('\n', written.size() - 2);
        const std::string last = written.substr(start == std::string::npos ? 0 : start + 1);
        std::string why;
        const std::optional<LeaseEvent> event =
            read_lease_event(last.substr(0, last.size() - 1), why);
        const bool line = row[3] == "yes";
        EXPECT_EQ(log.read(), line);
        if (!line)
            continue;
        ASSERT_TRUE(event) << why << ": " << last;
        EXPECT_EQ(event->host, nk::test::expand(row[4], values));
        EXPECT_EQ(event->fingerprint, (DhcpFingerprint{row[5], nk::test::expand(row[6], values)}));
    }
    const ClientRequest* request = log.request_of(nk::sockutl::macaddr(mac));
    ASSERT_NE(request, nullptr);
    EXPECT_EQ(request->host, odd);
    EXPECT_EQ(request->client_id, *hex_bytes("01:" + mac));
    EXPECT_EQ(log.mac_of_duid(*hex_bytes("00:03:00:01:" + mac)), nk::sockutl::macaddr(mac));
    nk::setMgmt::uninit();
}

}  // namespace
