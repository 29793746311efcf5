// The MAC-IP map, the lease table in the collector's JSON, and the expiring cache on a pinned
// clock with the retry rules of submission records.
#include <gtest/gtest.h>

#include <nk/json.h>

#include "cache.h"
#include "leases.h"
#include "macips.h"
#include "tables.h"

namespace {

using nk::ip_set;
using nk::json_ptr;
using nk::macips_t;
using nk::leases::leases_t;
using nk::sockutl::address;
using nk::sockutl::macaddr;

const macaddr kMac1("02:00:00:00:00:01");
const macaddr kMac2("02:00:00:00:00:02");
const macaddr kMac3("02:00:00:00:00:03");
const macaddr kMac4("02:00:00:00:00:04");
const address kV4("192.168.1.10");
const address kV4LinkLocal("169.254.3.4");
const address kGlobal6("2001:db8::10");
const address kLinkLocal6("fe80::10");

TEST(MacIps, AddClearAndRefuse) {
    macips_t map;
    EXPECT_TRUE(map.add_ip(kMac1, kV4));
    EXPECT_FALSE(map.add_ip(kMac1, kV4));
    EXPECT_TRUE(map.add_ip(kMac2, kV4));
    EXPECT_FALSE(map.add_mac(kMac1));
    // Clearing forgets the addresses; the MAC stays known.
    EXPECT_TRUE(map.clear_mac(kMac1));
    EXPECT_TRUE(map.has_mac(kMac1));
    EXPECT_TRUE(map.get_ips(kMac1, true).empty());
    EXPECT_FALSE(map.clear_mac(kMac3));

    macips_t empty;
    for (const auto& row : nk::test::Table(NK_TEST_DATA "/leases.json", "refused"))
        EXPECT_FALSE(empty.add_ip(macaddr(row.str("mac")), address(row.str("ip")))) << row.text();
    EXPECT_FALSE(empty.add_mac(macaddr("ff:ff:ff:ff:ff:ff")));
    EXPECT_TRUE(empty.macs.empty() && empty.ips.empty());
}

TEST(MacIps, LinkLocalFilteringAndEquality) {
    macips_t map;
    for (const address& ip : {kV4, kV4LinkLocal, kGlobal6, kLinkLocal6})
        ASSERT_TRUE(map.add_ip(kMac1, ip));
    map.add_ip(kMac2, kV4);
    EXPECT_EQ(map.get_ips(kMac1, false), (ip_set{kV4, kV4LinkLocal, kGlobal6}));
    EXPECT_EQ(map.get_ips(kMac1, true).size(), 4u);
    EXPECT_EQ(map.ips6(kMac1, false), ip_set{kGlobal6});
    EXPECT_EQ(map.ipll(kMac1), ip_set{kLinkLocal6});
    EXPECT_TRUE(map.ipll(kMac2).empty());

    macips_t copy = map;
    EXPECT_EQ(map, copy);
    copy.clear_mac(kMac2);
    EXPECT_NE(map, copy);
}

TEST(Leases, FromJsonSkipsBadElementsAndAccumulatesRepeatedMacs) {
    const json_ptr json(json_array());
    for (const auto& row : nk::test::Table(NK_TEST_DATA "/leases.json", "collector_leases"))
        json_array_append(json.get(), row.get(nullptr));
    leases_t table;
    ASSERT_TRUE(table.from_json(json.get()));
    EXPECT_EQ(table.macs.size(), 2u);
    EXPECT_EQ(table.get_ips(kMac1, true).size(), 2u);
    EXPECT_EQ(table.hosts.at(kMac1), "one");
    EXPECT_EQ(table.ifaces.at(kMac1), "br2");
    for (const macaddr& gone : {kMac2, kMac3}) {
        EXPECT_FALSE(table.has_mac(gone));
        EXPECT_EQ(table.hosts.count(gone) + table.ifaces.count(gone), 0u);
    }
    EXPECT_TRUE(table.get_ips(kMac4, true).empty());
    EXPECT_EQ(table.hosts.at(kMac4), "four");
    EXPECT_EQ(table.ifaces.at(kMac4), "br1");

    const leases_t before = table;
    const json_ptr object(json_pack("{s:s}", "mac", "02:00:00:00:00:02"));
    EXPECT_FALSE(table.from_json(object.get()));
    EXPECT_FALSE(table.from_json(nullptr));
    EXPECT_EQ(table, before);
    EXPECT_EQ(table.hosts, before.hosts);
}

TEST(Leases, ToJsonWritesTheCollectorFormatAndReadsBack) {
    leases_t table;
    table.add_one(kMac1, address("10.0.0.1"), "h", "br0");
    EXPECT_EQ(nk::json_dump_compact(json_ptr(table.to_json()).get()),
              R"([{"mac":"02:00:00:00:00:01","ips":["10.0.0.1"],"host":"h","iface":"br0"}])");

    table.add_one(kMac1, address("fe80::1"), "h", "br0");
    table.add_one(kMac2, address("2001:db8::2"), "", "br1");
    table.add_mac(kMac3);  // no interface or host: not written
    leases_t back;
    ASSERT_TRUE(back.from_json(json_ptr(table.to_json()).get()));
    EXPECT_EQ(back.get_ips(kMac1, true), table.get_ips(kMac1, true));
    EXPECT_EQ(back.hosts, table.hosts);
    EXPECT_EQ(back.hosts.at(kMac2), "*");
    EXPECT_EQ(back.ifaces, table.ifaces);
    EXPECT_FALSE(back.has_mac(kMac3));
}

TEST(Leases, SettersNeedAKnownMacAndAValue) {
    leases_t table;
    EXPECT_FALSE(table.add_one(kMac1, address("10.0.0.1"), "h", ""));
    EXPECT_FALSE(table.add_one(kMac1, address(), "h", "br0"));
    EXPECT_TRUE(table.macs.empty());
    EXPECT_FALSE(table.set_iface(kMac1, "br0"));

    ASSERT_TRUE(table.add_one(kMac1, address("10.0.0.1"), "h", "br0"));
    EXPECT_FALSE(table.add_one(kMac1, address("10.0.0.1"), "h", "br0"));
    EXPECT_TRUE(table.set_host(address("10.0.0.1"), "renamed"));
    EXPECT_FALSE(table.set_host(address("10.0.0.9"), "nobody"));
    EXPECT_EQ(table.hosts.at(kMac1), "renamed");

    EXPECT_TRUE(table.del_mac(kMac1));
    EXPECT_TRUE(table.macs.empty() && table.hosts.empty() && table.ifaces.empty());
}

TEST(Leases, MergeFillsOnlyMissingEntriesOfKnownMacs) {
    leases_t mine;
    mine.add_mac(kMac1);
    mine.add_one(kMac2, address("10.0.0.2"), "mine", "br0");
    leases_t theirs;
    theirs.add_one(kMac1, address("10.0.0.1"), "one", "br1");
    theirs.add_one(kMac2, address("10.0.0.2"), "theirs", "br9");
    theirs.add_one(kMac3, address("10.0.0.3"), "three", "br1");
    mine.merge(theirs);
    EXPECT_EQ(mine.hosts.at(kMac1), "one");
    EXPECT_EQ(mine.ifaces.at(kMac1), "br1");
    EXPECT_EQ(mine.hosts.at(kMac2), "mine");
    EXPECT_FALSE(mine.has_mac(kMac3));
}

using Record = nk::AdditionalInfo<std::string>;

struct TestClock {
    static inline std::time_t t = 1'000'000;
    static std::time_t now() { return t; }
};

template <typename V>
using TestCache = nk::Cache<macaddr, V, TestClock>;

std::int32_t state(const nk::test::Row& row, const char* key) {
    const std::map<std::string, std::int32_t> states{{"failed", nk::kSubmissionFailed},
                                                     {"deferred", nk::kSubmissionDeferred},
                                                     {"sent", nk::kSubmissionSent},
                                                     {"ok", nk::kSubmissionOk}};
    return states.at(row.str(key));
}

macaddr nth_mac(int n) {
    return macaddr(std::array<std::uint8_t, 6>{2, 0, 0, 0, static_cast<std::uint8_t>(n >> 8),
                                               static_cast<std::uint8_t>(n)});
}

TEST(Cache, FullCacheRefusesUntilValuesAreOldEnough) {
    TestCache<int> cache(1024, 120);
    const std::time_t start = TestClock::t;
    for (int i = 0; i < 1024; ++i) {
        TestClock::t = start + (i < 1000 ? 0 : 60);
        ASSERT_TRUE(cache.add(nth_mac(i), i));
    }
    TestClock::t = start + 119;
    EXPECT_FALSE(cache.add(kMac1, -1));
    EXPECT_EQ(cache.size(), 1024u);
    // At 120 s the first thousand go; the younger ones stay.
    TestClock::t = start + 120;
    EXPECT_TRUE(cache.add(kMac1, -1));
    EXPECT_EQ(cache.size(), 25u);
    EXPECT_FALSE(cache.exists(nth_mac(0), 0));
    EXPECT_TRUE(cache.exists(nth_mac(1000), 1000));
}

TEST(Cache, ValuesOfAKeyKeepTheirOrderUntilRemoved) {
    TestCache<int> cache(8, 120);
    ASSERT_TRUE(cache.add(kMac1, 1));
    TestClock::t += 1000;  // a cache that is not full keeps old values
    ASSERT_TRUE(cache.add(kMac1, 2));
    ASSERT_TRUE(cache.add(kMac2, 3));
    EXPECT_TRUE(cache.exists(kMac1, 1));
    EXPECT_FALSE(cache.exists(kMac2, 1));
    EXPECT_EQ(cache.count(kMac1), 2u);
    EXPECT_TRUE(cache.remove(kMac3).empty());
    const auto removed = cache.remove(kMac1);
    ASSERT_EQ(removed.size(), 2u);
    EXPECT_EQ(removed[0].value, 1);
    EXPECT_EQ(removed[1].value, 2);
    EXPECT_EQ(cache.size(), 1u);
}

TEST(Cache, UpdateChangesEveryMatchOfAKnownKeyOnly) {
    TestCache<Record> cache(8, 120);
    cache.add(kMac1, {"ua", nk::kSubmissionSent, 10, 5});
    cache.add(kMac1, {"other", nk::kSubmissionSent, 10, 5});
    cache.add(kMac1, {"ua", nk::kSubmissionFailed, 20, 5});
    const auto is_ua = [](const Record& r) { return r.info == "ua"; };
    cache.update(kMac2, is_ua, nk::set_submission_state{nk::kSubmissionOk});
    cache.update(kMac1, is_ua, nk::set_submission_state{nk::kSubmissionOk});
    const auto ok = cache.get([](const Record& r) { return r.state == nk::kSubmissionOk; });
    ASSERT_EQ(ok.size(), 1u);
    ASSERT_EQ(ok.at(kMac1).size(), 2u);
    EXPECT_EQ(ok.at(kMac1)[1].value.last_attempt, 20);
    EXPECT_EQ(cache.size(), 3u);
}

TEST(Cache, RetryPicksFailedAndDeferredRecordsWhoseWaitIsOver) {
    TestCache<Record> cache(8, 120);
    for (const auto& row : nk::test::Table(NK_TEST_DATA "/leases.json", "retry_records"))
        cache.add(macaddr(row.str("mac")),
                  nk::new_submission<std::string>(row.str("info"), state(row, "state"),
                                                  row.num("last_attempt"), row.num("interval")));
    const auto due = cache.get(nk::due_for_retry{120});
    ASSERT_EQ(due.size(), 2u);
    ASSERT_EQ(due.at(kMac1).size(), 1u);
    EXPECT_EQ(due.at(kMac1)[0].value.info, "due");
    ASSERT_EQ(due.at(kMac2).size(), 1u);
    EXPECT_EQ(due.at(kMac2)[0].value.info, "deferred");

    std::mutex mutex;
    nk::remove_macs_from_cache(std::vector<macaddr>{kMac1, nth_mac(7)}, cache, mutex);
    EXPECT_EQ(cache.size(), 3u);
    EXPECT_TRUE(cache.exists(kMac2, {"ok", 0, 9, 9}));  // records match on their info
}

TEST(Cache, ResendDoublesTheIntervalUnderTheCapOfTheOldState) {
    for (const auto& row : nk::test::Table(NK_TEST_DATA "/leases.json", "resend")) {
        SCOPED_TRACE(row.text());
        const auto [old_state, new_state] = std::pair(state(row, "old"), state(row, "new"));
        Record record = nk::new_submission<std::string>("ua", old_state, 1, row.num("interval"));
        nk::resubmitted{new_state, 500}(record);
        EXPECT_EQ(record.state, new_state);
        EXPECT_EQ(record.last_attempt, 500);
        EXPECT_EQ(record.retry_interval, row.num("expected"));
    }
}

}  // namespace
