// The expiring cache on a pinned clock, and the retry rules of submission records.
#include "cache.h"

#include <gtest/gtest.h>

#include <string>

#include "stderr_capture.h"

namespace {

using nk::sockutl::macaddr;
using Record = nk::AdditionalInfo<std::string>;

struct TestClock {
    static inline std::time_t t = 1'000'000;
    static std::time_t now() { return t; }
};

template <typename V>
using TestCache = nk::Cache<macaddr, V, TestClock>;

const macaddr kMac1("02:00:00:00:00:01");
const macaddr kMac2("02:00:00:00:00:02");

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
    nk::test::StderrCapture capture;
    EXPECT_FALSE(cache.add(kMac1, -1));
    EXPECT_NE(capture.text().find("Could not add entry in cache. Cache is full"),
              std::string::npos);
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

    EXPECT_TRUE(cache.remove(macaddr("02:00:00:00:00:99")).empty());
    EXPECT_EQ(cache.size(), 3u);
    const auto removed = cache.remove(kMac1);
    ASSERT_EQ(removed.size(), 2u);
    EXPECT_EQ(removed[0].value, 1);
    EXPECT_EQ(removed[1].value, 2);
    EXPECT_EQ(cache.size(), 1u);
}

TEST(Cache, UpdateChangesEveryMatchOfAKnownKeyOnly) {
    nk::log::set_level(nk::log::DEBUG);
    TestCache<Record> cache(8, 120);
    cache.add(kMac1, {"ua", nk::kSubmissionSent, 10, 5});
    cache.add(kMac1, {"other", nk::kSubmissionSent, 10, 5});
    cache.add(kMac1, {"ua", nk::kSubmissionFailed, 20, 5});
    const auto is_ua = [](const Record& r) { return r.info == "ua"; };

    nk::test::StderrCapture capture;
    cache.update(kMac2, is_ua, nk::set_submission_state{nk::kSubmissionOk});
    EXPECT_NE(capture.text().find("Key not found"), std::string::npos);

    cache.update(kMac1, is_ua, nk::set_submission_state{nk::kSubmissionOk});
    const auto ok = cache.get([](const Record& r) { return r.state == nk::kSubmissionOk; });
    ASSERT_EQ(ok.size(), 1u);
    ASSERT_EQ(ok.at(kMac1).size(), 2u);
    EXPECT_EQ(ok.at(kMac1)[1].value.last_attempt, 20);
    EXPECT_EQ(cache.size(), 3u);
}

TEST(Cache, RetryPicksFailedAndDeferredRecordsWhoseWaitIsOver) {
    TestCache<Record> cache(8, 120);
    cache.add(kMac1, {"due", nk::kSubmissionFailed, 100, 10});
    cache.add(kMac1, {"exactly-now", nk::kSubmissionFailed, 100, 20});
    cache.add(kMac2, {"deferred", nk::kSubmissionDeferred, 100, 5});
    cache.add(kMac2, {"sent", nk::kSubmissionSent, 0, 5});
    cache.add(kMac2, {"ok", nk::kSubmissionOk, 0, 5});

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
    const struct {
        std::int32_t old_state;
        std::int32_t new_state;
        std::int32_t interval;
        std::int32_t expected;
    } cases[] = {
        {nk::kSubmissionFailed, nk::kSubmissionSent, 2000, 3600},
        {nk::kSubmissionDeferred, nk::kSubmissionSent, 400, 600},
        {nk::kSubmissionFailed, nk::kSubmissionDeferred, 400, 800},
        {nk::kSubmissionFailed, nk::kSubmissionFailed, 5, 10},
        {nk::kSubmissionFailed, nk::kSubmissionFailed, 2'000'000'000, 3600},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.interval);
        Record record = nk::new_submission<std::string>("ua", c.old_state, 1, c.interval);
        nk::resubmitted{c.new_state, 500}(record);
        EXPECT_EQ(record.state, c.new_state);
        EXPECT_EQ(record.last_attempt, 500);
        EXPECT_EQ(record.retry_interval, c.expected);
    }
}

}  // namespace
