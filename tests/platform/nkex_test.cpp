// The bus between real clients through the project's own broker configuration.
#include "nk/nkex.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "bus_peer.h"
#include "stderr_capture.h"
#include "tables.h"
#include "temp_dir.h"
#include "test_broker.h"
#include "wait.h"

namespace {

using namespace std::chrono_literals;
using nk::test::ask;
using nk::test::Inbox;
using nk::test::Peer;
using nk::test::run_command;
using nk::test::ScopedEnv;

class NkexTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(broker_.start()); }

    nk::test::TempDir dir_;
    nk::test::TestBroker broker_{dir_.path()};
    ScopedEnv broker_env_{"NKEX_BROKER", broker_.address()};
    ScopedEnv timeout_env_{"NKEX_TIMEOUT_MS", "3000"};
};

TEST(NkexConfig, BadAddressesNamesAndNoBrokerAreRefused) {
    const ScopedEnv timeout("NKEX_TIMEOUT_MS", std::nullopt);
    const nk::test::TempDir dir;
    for (const auto& row : nk::test::Table(NK_TEST_DATA "/bus.json", "bad_addresses")) {
        const ScopedEnv env("NKEX_BROKER", nk::test::expand(row.str(), {{"dir", dir.path()}}));
        EXPECT_EQ(nkex_init("client", nullptr, nullptr, 1), nullptr) << row.text();
    }
    for (const auto& row : nk::test::Table(NK_TEST_DATA "/bus.json", "bad_names"))
        EXPECT_EQ(nkex_init(row.str().c_str(), nullptr, nullptr, 1), nullptr) << row.text();
    EXPECT_EQ(nkex_init(nullptr, nullptr, nullptr, 1), nullptr);
    EXPECT_EQ(nkex_init(std::string(NKEX_NAME_MAX, 'n').c_str(), nullptr, nullptr, 1), nullptr);
}

TEST(NkexBroker, StartsAndStopsWithoutAWord) {
    nk::test::StderrCapture capture;
    const nk::test::TempDir dir;
    nk::test::TestBroker broker(dir.path());
    ASSERT_TRUE(broker.start());
    broker.stop();
    EXPECT_EQ(capture.text(), "");
}

// Events sent just before the sender leaves still arrive: uninit waits for the broker.
TEST_F(NkexTest, EventsReachEverySubscriberAndNoOther) {
    Peer a("a", {"cloud::connect/box_mgmt/connect_device"});
    Peer b("b", {"cloud::connect/box_mgmt/connect_device", "other"});
    Peer c("c", {"other"});
    ASSERT_TRUE(a.handle() && b.handle() && c.handle());
    const std::string data("x\0y", 3);
    {
        Peer sender("sender");
        EXPECT_EQ(nkex_send_message(sender.handle(), "cloud::connect/box_mgmt/connect_device",
                                    data.data(), data.size()),
                  0);
        for (int i = 0; i < 50; ++i) {
            const std::string n = std::to_string(i);
            ASSERT_EQ(nkex_send_message(sender.handle(), "other", n.data(), n.size()), 0);
        }
    }
    ASSERT_TRUE(a.got(data) && b.got("49") && c.got("49"));
    const nk::test::Received first = b.received().front();
    EXPECT_EQ(first.name, "cloud::connect/box_mgmt/connect_device");
    EXPECT_EQ(first.data, data);
    EXPECT_EQ(first.id, 0u);
    // The others came after the event from the same sender: c would have had it by now.
    EXPECT_EQ(c.count(), 50u);
    EXPECT_EQ(a.count(), 1u);
}

// The broker keeps a whole burst of QoS 1 events for a subscriber that is away, and the
// subscriber's session brings them without subscribing again.
TEST_F(NkexTest, ABurstWaitsWholeForAnAbsentSubscriber) {
    constexpr std::size_t kBurst = 20000;
    { const Peer away("sink", {"burst"}); }
    Peer watcher("watcher", {"burst-end"});
    Peer sender("sender");
    for (std::size_t i = 0; i < kBurst; ++i) {
        const std::string data = std::to_string(i);
        ASSERT_EQ(nkex_send_message(sender.handle(), "burst", data.data(), data.size()), 0);
    }
    // The broker takes a client's messages in order: once the marker is through, so is the burst.
    ASSERT_EQ(nkex_send_message(sender.handle(), "burst-end", "end", 3), 0);
    ASSERT_TRUE(watcher.got("end", 60s));

    const Peer back("sink");
    ASSERT_TRUE(nk::test::wait_until([&] { return back.count() >= kBurst; }, 30s)) << back.count();
    // Only 0..kBurst-1 were sent: as many distinct ones as received means each came once.
    std::set<std::string> seen;
    for (const nk::test::Received& r : back.received())
        seen.insert(r.data);
    EXPECT_EQ(seen.size(), kBurst);
    EXPECT_EQ(back.count(), kBurst);
}

// Each answer carries the responder's status, even a negative one, and data with NULs in it.
TEST_F(NkexTest, ConcurrentRequestersGetTheirOwnAnswers) {
    Peer responder("responder", {"svc"});
    responder.answer_with(-22);
    Peer one("one");
    Peer two("two");
    ASSERT_TRUE(responder.handle() && one.handle() && two.handle());
    std::atomic<int> good{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([h = (t % 2 ? one : two).handle(), t, &good] {
            for (int i = 0; i < 25; ++i) {
                const std::string q = std::to_string(t) + '\0' + std::to_string(i);
                const auto answer = ask(h, "svc", q);
                good += answer && answer->first == "-22" && answer->second == "re:" + q;
            }
        });
    }
    for (std::thread& t : threads)
        t.join();
    EXPECT_EQ(good, 100);
}

TEST_F(NkexTest, AsyncRequestIsAnsweredOnceAndUninitEndsThePendingOnes) {
    Peer responder("responder", {"svc"});
    responder.answer_with(3);
    Inbox answer, pending;
    {
        Peer requester("requester");
        ASSERT_EQ(nkex_send_request(requester.handle(), "svc", "hi", 2, &Inbox::on_answer, &answer),
                  0);
        ASSERT_TRUE(answer.got("re:hi"));
        ASSERT_EQ(nkex_send_request(requester.handle(), "nobody", nullptr, 0, &Inbox::on_answer,
                                    &pending),
                  0);
    }
    ASSERT_EQ(answer.count(), 1u);
    EXPECT_EQ(answer.received()[0].name, "3");
    ASSERT_EQ(pending.count(), 1u);
    EXPECT_EQ(pending.received()[0].name, NKEX_STATUS_TIMEOUT);
}

TEST_F(NkexTest, UnansweredRequestsTimeOutAndLateAnswersAreDropped) {
    const ScopedEnv timeout("NKEX_TIMEOUT_MS", std::string("300"));
    Peer responder("responder", {"svc"});
    Inbox answer;
    {
        Peer requester("requester");
        const auto start = std::chrono::steady_clock::now();
        EXPECT_FALSE(ask(requester.handle(), "svc", "late"));
        const auto waited = std::chrono::steady_clock::now() - start;
        EXPECT_GE(waited, 300ms);
        EXPECT_LT(waited, 2s);
        ASSERT_TRUE(responder.got("late"));
        const uint64_t id = responder.received().front().id;
        EXPECT_EQ(nkex_send_response(responder.handle(), 0, id, "stale", 5), 0);
        EXPECT_NE(nkex_send_response(responder.handle(), 0, id, "again", 5), 0);
        EXPECT_NE(nkex_send_response(responder.handle(), 0, id + 1000, "unknown", 7), 0);

        ASSERT_EQ(
            nkex_send_request(requester.handle(), "svc", "async", 5, &Inbox::on_answer, &answer),
            0);
        ASSERT_TRUE(answer.got(""));
        EXPECT_EQ(answer.received()[0].name, NKEX_STATUS_TIMEOUT);

        responder.answer_with(0);
        const auto fresh = ask(requester.handle(), "svc", "fresh");
        ASSERT_TRUE(fresh);
        EXPECT_EQ(fresh->second, "re:fresh");
    }
    EXPECT_EQ(answer.count(), 1u);
}

TEST_F(NkexTest, SyncRequestFromTheBusThreadIsRefused) {
    struct Probe {
        nkex_handle* handle = nullptr;
        std::atomic<int> rc{1};
    } probe;
    probe.handle = nkex_init(
        "probe",
        [](const Message*, void* context) {
            auto* p = static_cast<Probe*>(context);
            Message request{};
            std::snprintf(request.name, sizeof(request.name), "nobody");
            Message* response = nullptr;
            p->rc = nkex_send_request_and_wait_response(p->handle, &request, &response);
        },
        &probe, 1);
    ASSERT_TRUE(probe.handle);
    const char* topics[] = {"poke"};
    ASSERT_EQ(nkex_subscribe(probe.handle, topics, 1), 0);
    ASSERT_EQ(nkex_send_message(probe.handle, "poke", nullptr, 0), 0);
    EXPECT_TRUE(nk::test::wait_until([&] { return probe.rc != 1; }, 1s));
    EXPECT_EQ(probe.rc, -1);
    nkex_uninit(probe.handle);
}

TEST_F(NkexTest, BrokerRestartIsSurvived) {
    Peer a("a", {"ev", "self-a"});
    Peer b("b", {"svc", "self-b"});
    b.answer_with(0);
    ASSERT_TRUE(a.handle() && b.handle());

    broker_.stop();
    // Sent while the broker is down: kept by the client and sent after the subscriptions
    // are made again, so each client gets its own message back.
    EXPECT_EQ(nkex_send_message(a.handle(), "self-a", "queued-a", 8), 0);
    EXPECT_EQ(nkex_send_message(b.handle(), "self-b", "queued-b", 8), 0);
    ASSERT_TRUE(broker_.start());
    ASSERT_TRUE(a.got("queued-a") && b.got("queued-b"));

    EXPECT_EQ(nkex_send_message(b.handle(), "ev", "after", 5), 0);
    EXPECT_TRUE(a.got("after"));
    const auto answer = ask(a.handle(), "svc", "again");
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->second, "re:again");
}

TEST_F(NkexTest, CommandLineClientsTalkToTheBus) {
    Peer peer("peer", {"#"});
    peer.answer_with(5);
    ASSERT_TRUE(peer.handle());
    const std::string cli = "--unix " + broker_.socket_path() + " -V 5 ";
    ASSERT_EQ(run_command("mosquitto_pub " + cli + "-q 1 -t nkex/msg/ev -m hi"), 0);
    ASSERT_EQ(run_command("mosquitto_pub " + cli + "-q 1 -t nkex/msg/" + std::string(300, 'n') +
                          " -m long"),
              0);
    std::string out;
    ASSERT_EQ(run_command("mosquitto_rr " + cli + "-W 5 -t nkex/msg/svc -e nkex/rsp/cli -m ask " +
                              "-F '%P %p'",
                          &out),
              0);
    EXPECT_EQ(out, "status:5 re:ask\n");
    ASSERT_TRUE(peer.got("long"));
    const std::vector<nk::test::Received> got = peer.received();
    EXPECT_EQ(got[0].name, "ev");
    EXPECT_EQ(got[0].id, 0u);
    EXPECT_EQ(got[1].name, std::string(NKEX_NAME_MAX - 1, 'n'));
}

// A locked-down bus: strangers and wrong passwords are turned away, and each program publishes
// only what is its own to say.
TEST(NkexAccounts, OnlyKnownAccountsGetInAndPublishTheirOwnTopics) {
    const nk::test::TempDir scratch;
    nk::test::TestBroker broker(scratch.path());
    // Another daemon's account, kept by the run of bus-credentials that starting the broker makes.
    ASSERT_EQ(run_command(std::string(NK_BUS_CREDENTIALS) + " " + (scratch / "bus") +
                          " --asker parental"),
              0);
    broker.require_accounts(scratch / "bus");
    ASSERT_TRUE(broker.start());
    const ScopedEnv bus("NKEX_BROKER", broker.address());
    const ScopedEnv timeout("NKEX_TIMEOUT_MS", "500");
    const auto joins = [](const std::string& credentials) {
        const ScopedEnv dir("NKEX_CREDENTIALS_DIR", credentials);
        nkex_handle* handle = nkex_init("nkdevices-42", nullptr, nullptr, 1);
        nkex_uninit(handle);
        return handle != nullptr;
    };
    EXPECT_TRUE(joins(scratch / "bus"));
    ASSERT_EQ(run_command("mkdir " + (scratch / "forged") + " && echo nkdevices:guess >" +
                          (scratch / "forged/nkdevices.cred")),
              0);
    EXPECT_FALSE(joins(scratch / "forged"));
    {
        const ScopedEnv own("NKEX_CREDENTIALS_DIR", scratch / "bus");
        EXPECT_FALSE(nkex_init("stranger", nullptr, nullptr, 1));
    }
    for (const auto& row : nk::test::Table(NK_TEST_DATA "/bus.json", "publish")) {
        // mosquitto_pub warns of a publish the broker refused, and exits 0 all the same.
        std::string out;
        const std::string account = row.str("account");
        ASSERT_EQ(
            run_command("mosquitto_pub --unix " + broker.socket_path() + " -V 5 -q 1 -m x -t '" +
                            row.str("topic") + "' -u " + account + " -P \"$(cut -d: -f2- " +
                            (scratch / "bus/") + account + ".cred)\" 2>&1",
                        &out),
            0)
            << out;
        EXPECT_EQ(out.find("Not authorized") == std::string::npos, row.flag("allowed"))
            << row.text() << out;
    }
}

}  // namespace
