// The cloud emulator binary on a private broker: the scenarios of data/cloud_emu.json (answers,
// persistence, operator commands with their events, faults), and the paging of its list.
#include <signal.h>

#include <gtest/gtest.h>

#include <chrono>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <fmt/format.h>
#include <nk/json.h>
#include <nk/nkex.h>
#include <nk/setmgmt.h>

#include "bus_peer.h"
#include "daemon_process.h"
#include "tables.h"
#include "temp_dir.h"
#include "test_broker.h"
#include "wait.h"

namespace {

using nk::json_object_get_recursive;

const json_t* scenarios() {
    static const nk::json_ptr all = nk::test::load_json(NK_TOOLS_DATA "/cloud_emu.json");
    return json_object_get(all.get(), "cases");
}

class CloudEmuTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(broker_.start());
        ASSERT_TRUE(start_server({}));
        client_.emplace("nkdevicediscovery", std::vector<const char*>{"devmgmt:device_inventory"});
        ASSERT_TRUE(client_->handle());
    }

    bool start_server(const json_t* extra) {
        server_ = std::make_unique<nk::test::DaemonProcess>();
        std::vector<std::string> args{NK_CLOUD_EMU_BIN, "-f", "serve"};
        for (std::size_t i = 0; i < json_array_size(extra); ++i)
            args.emplace_back(json_string_value(json_array_get(extra, i)));
        if (!server_->start(args) || !server_->wait_for_line("cloud ready"))
            return false;
        // The BOX keeps its id for good, across restarts too.
        std::string box;
        nk::setMgmt::getKey("/daemons/nkcloudd/device_id", box);
        const nk::json_ptr id(json_string(box.c_str()));
        const nk::json_ptr pattern(json_string("$box~."));
        nk::test::match_json(pattern.get(), id.get(), vars_, "the BOX's id");
        return true;
    }

    // The answer's status ("" when none came) and body.
    std::pair<std::string, nk::json_ptr> request(const std::string& command,
                                                 const std::string& body) {
        const auto answer =
            nk::test::ask(client_->handle(), "cloud::connect/box_mgmt/" + command, body);
        if (!answer)
            return {};
        return {answer->first, nk::json_ptr(json_loads(answer->second.c_str(), 0, nullptr))};
    }

    // The text with each "{name}" replaced by the value bound to "$name".
    std::string bound(const std::string& text) const { return nk::test::expand(text, vars_); }

    void run(const json_t* step) {
        const char* send = nk::json_string_member(step, "send");
        const char* emu = nk::json_string_member(step, "emu");
        const json_t* pattern = nullptr;
        nk::json_ptr got;
        if (send != nullptr) {
            const json_t* body = json_object_get(step, "body");
            const auto begin = std::chrono::steady_clock::now();
            auto [status, answer] =
                request(send, bound(json_is_string(body) ? json_string_value(body)
                                                         : nk::json_dump_compact(body)));
            EXPECT_GE(
                std::chrono::steady_clock::now() - begin,
                std::chrono::milliseconds(json_integer_value(json_object_get(step, "min_ms"))));
            const char* want = nk::json_string_member(step, "status");
            EXPECT_EQ(status, want ? want : "0");
            pattern = json_object_get(step, "answer");
            got = std::move(answer);
        } else if (emu != nullptr) {
            std::string out;
            const int exit =
                nk::test::run_command(std::string(NK_CLOUD_EMU_BIN) + " " + bound(emu), &out);
            EXPECT_EQ(exit, json_integer_value(json_object_get(step, "exit"))) << out;
            const json_t* want = json_object_get(step, "out");
            if (json_is_string(want)) {
                EXPECT_EQ(out, json_string_value(want));
            }
            for (std::size_t i = 0; i < json_array_size(want); ++i) {
                const std::string part = bound(json_string_value(json_array_get(want, i)));
                EXPECT_NE(out.find(part), std::string::npos) << part << " in " << out;
            }
            if ((pattern = json_object_get(step, "first_line")) != nullptr)
                got.reset(json_string(out.substr(0, out.find('\n')).c_str()));
            else if ((pattern = json_object_get(step, "json")) != nullptr)
                got.reset(json_loads(out.c_str(), 0, nullptr));
        } else if (const json_t* extra = json_object_get(step, "restart")) {
            ASSERT_EQ(server_->stop(SIGTERM), 0);
            ASSERT_EQ(nk::setMgmt::deleteKey("/daemons/nkcloudd/device_id"), 0);
            ASSERT_TRUE(start_server(extra));
        } else if ((pattern = json_object_get(step, "events")) != nullptr) {
            ASSERT_TRUE(
                nk::test::wait_until([&] { return client_->count() >= json_array_size(pattern); }));
            got.reset(json_array());
            for (const nk::json_ptr& event : client_->json("devmgmt:device_inventory", ""))
                json_array_append(got.get(), event.get());
        }
        if (pattern != nullptr)
            nk::test::match_json(pattern, got.get(), vars_);
    }

    nk::test::TempDir dir_;
    nk::test::TestBroker broker_{dir_.path()};
    nk::test::ScopedEnv broker_env_{"NKEX_BROKER", broker_.address()};
    nk::test::ScopedEnv settings_env_{"NK_SETTINGS_DIR", dir_ / "settings"};
    nk::test::ScopedEnv db_env_{"NK_CLOUD_DB", dir_ / "cloud.db"};
    nk::test::ScopedEnv timeout_env_{"NKEX_TIMEOUT_MS", "1000"};
    std::unique_ptr<nk::test::DaemonProcess> server_;
    std::optional<nk::test::Peer> client_;
    std::map<std::string, std::string> vars_;
};

class CloudEmuScenario : public CloudEmuTest, public ::testing::WithParamInterface<std::size_t> {};

TEST_P(CloudEmuScenario, Run) {
    const json_t* steps = json_object_get(json_array_get(scenarios(), GetParam()), "steps");
    for (std::size_t i = 0; i < json_array_size(steps); ++i) {
        SCOPED_TRACE(
            fmt::format("step {}: {}", i, nk::json_dump_compact(json_array_get(steps, i))));
        run(json_array_get(steps, i));
        if (HasFatalFailure())
            return;
    }
}

INSTANTIATE_TEST_SUITE_P(CloudEmu, CloudEmuScenario,
                         ::testing::Range<std::size_t>(0, json_array_size(scenarios())),
                         [](const ::testing::TestParamInfo<std::size_t>& info) {
                             return std::string(nk::json_string_member(
                                 json_array_get(scenarios(), info.param), "name"));
                         });

// Pages hold the limit, in creation order, the BOX (whose MAC is not known) among them.
TEST_F(CloudEmuTest, ListPagesHoldTheLimitInCreationOrderAndTheBoxIsListed) {
    int made = 0;
    for (const auto& [listed, pages] : std::vector<std::pair<int, std::vector<std::size_t>>>{
             {1, {1, 0}}, {20, {20, 0}}, {21, {20, 1, 0}}}) {
        for (; made + 1 < listed; ++made) {
            const std::string mac = fmt::format("02:00:00:00:00:{:02x}", made + 1);
            ASSERT_EQ(request("connect_device", R"({"mac": ")" + mac + R"("})").first, "0");
        }
        std::map<std::string, std::size_t> macs;  // device id -> number of MACs
        std::pair<json_int_t, std::string> last{0, ""};
        for (std::size_t page = 0; page < pages.size(); ++page) {
            const auto [status, a] = request(
                "list_devices_v2",
                fmt::format(R"({{"limit": 20, "fields": ["macs", "created"], "page": {}}})", page));
            EXPECT_EQ(json_integer_value(json_object_get_recursive(a.get(), {"result", "page"})),
                      static_cast<json_int_t>(page));
            EXPECT_EQ(json_integer_value(json_object_get_recursive(a.get(), {"result", "count"})),
                      listed);
            const json_t* devices = json_object_get_recursive(a.get(), {"result", "devices"});
            ASSERT_EQ(json_array_size(devices), pages[page]) << listed << " page " << page;
            for (std::size_t i = 0; i < json_array_size(devices); ++i) {
                const json_t* d = json_array_get(devices, i);
                const std::pair<json_int_t, std::string> key{
                    json_integer_value(json_object_get(d, "created")),
                    nk::json_string_member(d, "device_id")};
                EXPECT_LT(last, key);
                last = key;
                macs[key.second] = json_array_size(json_object_get(d, "macs"));
            }
        }
        ASSERT_EQ(macs.size(), static_cast<std::size_t>(listed));
        for (const auto& [id, count] : macs)
            EXPECT_EQ(count, id == vars_["box"] ? 0u : 1u) << id;
    }
}

}  // namespace
