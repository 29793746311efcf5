// The private broker as the project configures and starts it: silent when all is well (as root
// too), and a daemon's burst of QoS 1 events is kept whole for a subscriber that is away.
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "nk/nkex.h"
#include "stderr_capture.h"
#include "temp_dir.h"
#include "test_broker.h"
#include "wait.h"

namespace {

using namespace std::chrono_literals;

constexpr int kBurst = 20000;

struct BusCloser {
    void operator()(nkex_handle* handle) const { nkex_uninit(handle); }
};
using Bus = std::unique_ptr<nkex_handle, BusCloser>;

// Counts the arrivals of each event number.
struct Tally {
    std::mutex mutex;
    std::vector<int> seen = std::vector<int>(kBurst, 0);
    int total = 0;

    static void on_message(const Message* m, void* context) {
        auto* self = static_cast<Tally*>(context);
        const int n = std::stoi(std::string(m->data, m->length));
        const std::lock_guard lock(self->mutex);
        ++self->seen.at(static_cast<std::size_t>(n));
        ++self->total;
    }
    int count() {
        const std::lock_guard lock(mutex);
        return total;
    }
};

TEST(BrokerTest, StartsAndStopsWithoutAWord) {
    nk::test::StderrCapture capture;
    nk::test::TestBroker broker;
    ASSERT_TRUE(broker.start());
    broker.stop();
    EXPECT_EQ(capture.text(), "");
}

TEST(BrokerTest, ABurstOfQos1EventsWaitsWholeForAnAbsentSubscriber) {
    nk::test::TestBroker broker;
    ASSERT_TRUE(broker.start());
    const nk::test::ScopedEnv env("NKEX_BROKER", broker.address());
    Tally tally, witness;
    const char* burst[] = {"burst"};
    const char* end[] = {"burst-end"};
    {
        // Subscribed, then gone: the broker queues the whole burst for its session.
        const Bus sink(nkex_init("sink", &Tally::on_message, &tally, 1));
        ASSERT_TRUE(sink);
        ASSERT_EQ(nkex_subscribe(sink.get(), burst, 1), 0);
    }
    const Bus watcher(nkex_init("watcher", &Tally::on_message, &witness, 1));
    ASSERT_TRUE(watcher);
    ASSERT_EQ(nkex_subscribe(watcher.get(), end, 1), 0);
    const Bus sender(nkex_init("sender", nullptr, nullptr, 1));
    ASSERT_TRUE(sender);
    for (int i = 0; i < kBurst; ++i) {
        const std::string data = std::to_string(i);
        ASSERT_EQ(nkex_send_message(sender.get(), "burst", data.data(), data.size()), 0);
    }
    // The broker takes a client's messages in order: once the marker is through, so is the burst.
    ASSERT_EQ(nkex_send_message(sender.get(), "burst-end", "0", 1), 0);
    ASSERT_TRUE(nk::test::wait_until([&] { return witness.count() == 1; }, 60s));

    const Bus sink(nkex_init("sink", &Tally::on_message, &tally, 1));
    ASSERT_TRUE(sink);
    // A dropped event never comes: once the count stands still for a while, it is final.
    int last = -1;
    while (!nk::test::wait_until([&] { return tally.count() == kBurst; }, 2s) &&
           tally.count() != last) {
        last = tally.count();
    }
    EXPECT_EQ(tally.count(), kBurst);
    for (int i = 0; i < kBurst; ++i)
        ASSERT_EQ(tally.seen[static_cast<std::size_t>(i)], 1) << "event " << i;
}

// A locked-down bus: strangers and wrong passwords are turned away at the door.
TEST(BrokerAccountsTest, OnlyKnownAccountsGetIn) {
    nk::test::TempDir scratch;
    nk::test::TestBroker broker;
    broker.require_accounts(scratch / "bus");
    ASSERT_TRUE(broker.start());
    const nk::test::ScopedEnv bus("NKEX_BROKER", broker.address());
    const nk::test::ScopedEnv timeout("NKEX_TIMEOUT_MS", "500");
    {
        const nk::test::ScopedEnv own("NKEX_CREDENTIALS_DIR", scratch / "bus");
        EXPECT_TRUE(Bus(nkex_init("nkdevices-42", nullptr, nullptr, 1)));
        EXPECT_FALSE(Bus(nkex_init("stranger", nullptr, nullptr, 1)));
    }
    ASSERT_EQ(nk::test::run_command("mkdir " + (scratch / "forged") + " && echo nkdevices:guess >" +
                                    (scratch / "forged/nkdevices.cred")),
              0);
    const nk::test::ScopedEnv forged("NKEX_CREDENTIALS_DIR", scratch / "forged");
    EXPECT_FALSE(Bus(nkex_init("nkdevices-42", nullptr, nullptr, 1)));
}

// Each program publishes only what is its own to say: nobody but the cloud connector answers
// the daemon's cloud requests or announces inventory changes, nobody but the daemon answers a
// device-id request.
TEST(BrokerAccountsTest, EachAccountPublishesOnlyItsOwnTopics) {
    nk::test::TempDir scratch;
    nk::test::TestBroker broker;
    // Another daemon's account, kept by the run of bus-credentials that starting the broker makes.
    ASSERT_EQ(nk::test::run_command(std::string(NK_BUS_CREDENTIALS) + " " + (scratch / "bus") +
                                    " --asker parental"),
              0);
    broker.require_accounts(scratch / "bus");
    ASSERT_TRUE(broker.start());
    struct Case {
        const char* account;
        const char* topic;
        bool allowed;
    };
    const Case cases[] = {
        {"nkcloudd", "nkex/msg/devmgmt:device_inventory", true},
        {"nksifter", "nkex/msg/devmgmt:device_inventory", false},
        {"nkdevices", "nkex/msg/devmgmt:device_inventory", false},
        {"nkcloudd", "nkex/rsp/nkdevicediscovery", true},
        {"nksifter", "nkex/rsp/nkdevicediscovery", false},
        {"nkdevices", "nkex/rsp/nkdevicediscovery", false},
        {"nksifter", "nkex/msg/sifter_dhcp_payload", true},
        {"nkdevices", "nkex/msg/sifter_user_agent", false},
        {"nkdevices", "nkex/msg/request_device_id", true},
        {"nkdevicediscovery", "nkex/rsp/nkdevices-42", true},
        {"nkcloudd", "nkex/rsp/nkdevices-42", false},
        {"nkdevicediscovery", "nkex/msg/permanent_device_id", true},
        {"nkcloudd", "nkex/msg/permanent_device_id", false},
        {"nksifter", "nkex/msg/clear_device_id_cache", false},
        {"parental", "nkex/msg/request_device_id", true},
        {"parental", "nkex/msg/permanent_device_id", false},
        {"parental", "nkex/msg/sifter_dhcp_payload", false},
        {"parental", "nkex/rsp/nkdevices-42", false},
    };
    for (const Case& c : cases) {
        // mosquitto_pub warns of a publish the broker refused, and exits 0 all the same.
        std::string out;
        const std::string command = "mosquitto_pub --unix " + broker.socket_path() +
                                    " -V 5 -q 1 -m x -t '" + c.topic + "' -u " + c.account +
                                    " -P \"$(cut -d: -f2- " + (scratch / "bus/") + c.account +
                                    ".cred)\" 2>&1";
        ASSERT_EQ(nk::test::run_command(command, &out), 0) << out;
        EXPECT_EQ(out.find("Not authorized") == std::string::npos, c.allowed)
            << c.account << " on " << c.topic << ": " << out;
    }
}

}  // namespace
