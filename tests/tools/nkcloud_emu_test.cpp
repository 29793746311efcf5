// The cloud emulator binary on a private broker: answers, paging, persistence, operator
// commands with their events, and faults.
#include <signal.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <map>
#include <memory>
#include <mutex>
#include <regex>
#include <string>
#include <vector>

#include <fmt/format.h>
#include <nk/json.h>
#include <nk/nkex.h>
#include <nk/setmgmt.h>

#include "daemon_process.h"
#include "temp_dir.h"
#include "test_broker.h"
#include "wait.h"

namespace {

using namespace std::chrono_literals;
using nk::json_object_get_recursive;

struct Answer {
    std::string status;  // empty when no answer came
    nk::json_ptr json;
};

const char* text_at(const Answer& a, std::initializer_list<const char*> path) {
    return json_string_value(json_object_get_recursive(a.json.get(), path));
}

json_int_t int_at(const Answer& a, std::initializer_list<const char*> path) {
    return json_integer_value(json_object_get_recursive(a.json.get(), path));
}

// The device of a list answer with this id, or null.
const json_t* listed(const Answer& a, const std::string& id) {
    size_t i = 0;
    const json_t* d = nullptr;
    json_array_foreach(json_object_get_recursive(a.json.get(), {"result", "devices"}), i, d) {
        const char* device_id = nk::json_string_member(d, "device_id");
        if (device_id && id == device_id)
            return d;
    }
    return nullptr;
}

class CloudEmuTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(broker_.start());
        ASSERT_TRUE(start_server());
        client_ = nkex_init("nkdevicediscovery", on_event, this, 1);
        ASSERT_NE(client_, nullptr);
    }
    void TearDown() override { nkex_uninit(client_); }

    bool start_server(const std::vector<std::string>& extra = {}) {
        server_ = std::make_unique<nk::test::DaemonProcess>();
        std::vector<std::string> args{NK_CLOUD_EMU_BIN, "-f", "serve"};
        args.insert(args.end(), extra.begin(), extra.end());
        return server_->start(args) && server_->wait_for_line("cloud ready");
    }

    static void on_event(const Message* m, void* context) {
        auto* self = static_cast<CloudEmuTest*>(context);
        const std::lock_guard lock(self->mutex_);
        self->events_.emplace_back(m->data, m->length);
    }

    Answer request(const std::string& command, const std::string& body) {
        Message req{};
        std::snprintf(req.name, sizeof(req.name), "cloud::connect/box_mgmt/%s", command.c_str());
        req.data = body.data();
        req.length = body.size();
        Message* rsp = nullptr;
        Answer answer;
        if (nkex_send_request_and_wait_response(client_, &req, &rsp) != 0)
            return answer;
        answer.status = rsp->status;
        answer.json.reset(json_loadb(rsp->data, rsp->length, 0, nullptr));
        nkex_free_response(rsp);
        return answer;
    }

    std::string connect(const std::string& mac, const std::string& name) {
        const Answer a =
            request("connect_device",
                    R"({"mac": ")" + mac + R"(", "box_detected_name": ")" + name + R"("})");
        const char* id = text_at(a, {"result", "device_id"});
        return id ? id : "";
    }

    Answer info(const std::string& id, const std::string& fields) {
        return request("get_device_info",
                       R"({"connect_destination": {"device_id": ")" + id + R"("}, "fields": )" +
                           fields + R"(, "additional_fields": ["box_detected_name_history"]})");
    }

    Answer list(int page) {
        return request("list_devices_v2",
                       R"({"limit": 20, "fields": ["macs", "created", "onbox", "box_device_id",)"
                       R"( "box_detected_name", "ip_list", "ip"], "page": )" +
                           std::to_string(page) + "}");
    }

    int emu(const std::string& args, std::string* out = nullptr) {
        return nk::test::run_command(std::string(NK_CLOUD_EMU_BIN) + " " + args, out);
    }

    std::string box_id() {
        std::string id;
        nk::setMgmt::getKey("/daemons/nkcloudd/device_id", id);
        return id;
    }

    // The inventory events seen so far, parsed.
    std::vector<nk::json_ptr> events() {
        const std::lock_guard lock(mutex_);
        std::vector<nk::json_ptr> out;
        for (const std::string& e : events_)
            out.emplace_back(json_loads(e.c_str(), 0, nullptr));
        return out;
    }
    bool wait_events(std::size_t n) {
        return nk::test::wait_until([&] {
            const std::lock_guard lock(mutex_);
            return events_.size() >= n;
        });
    }

    nk::test::TempDir dir_;
    nk::test::TestBroker broker_{dir_.path()};
    nk::test::ScopedEnv broker_env_{"NKEX_BROKER", broker_.address()};
    nk::test::ScopedEnv settings_env_{"NK_SETTINGS_DIR", dir_ / "settings"};
    nk::test::ScopedEnv db_env_{"NK_CLOUD_DB", dir_ / "cloud.db"};
    nk::test::ScopedEnv timeout_env_{"NKEX_TIMEOUT_MS", "1000"};
    std::unique_ptr<nk::test::DaemonProcess> server_;
    nkex_handle* client_ = nullptr;
    std::mutex mutex_;
    std::vector<std::string> events_;
};

TEST_F(CloudEmuTest, ConnectDeviceKeepsOneIdPerMacAndItsNameHistory) {
    const std::string id = connect("a4:5e:60:c2:1f:0b", "laptop");
    EXPECT_TRUE(std::regex_match(
        id, std::regex("[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}")))
        << id;
    EXPECT_NE(id, box_id());
    EXPECT_FALSE(box_id().empty());
    // "*" and "" are no names; a name coming back leaves no duplicate in the history.
    for (const char* name : {"laptop-2", "*", "", "laptop", "laptop-2"})
        EXPECT_EQ(connect("A4:5E:60:C2:1F:0B", name), id) << name;

    const Answer a = info(id, R"(["box_detected_name", "va_scan_level", "scan_level"])");
    EXPECT_STREQ(text_at(a, {"result", "box_detected_name"}), "laptop-2");
    EXPECT_EQ(nk::json_dump_compact(
                  json_object_get_recursive(a.json.get(), {"result", "box_detected_name_history"})),
              R"(["laptop","laptop-2"])");
    EXPECT_EQ(int_at(a, {"result", "scan_level"}), 2);
    EXPECT_TRUE(
        json_is_integer(json_object_get_recursive(a.json.get(), {"result", "va_scan_level"})));
}

TEST_F(CloudEmuTest, ListPagesHoldTheLimitInCreationOrderAndTheBoxIsListed) {
    struct Case {
        int listed;                      // the BOX and the devices made
        std::vector<std::size_t> pages;  // devices per page, the last one past the end
    };
    int made = 0;
    for (const Case& c : {Case{1, {1, 0}}, Case{20, {20, 0}}, Case{21, {20, 1, 0}}}) {
        for (; made + 1 < c.listed; ++made)
            ASSERT_FALSE(connect(fmt::format("02:00:00:00:00:{:02x}", made + 1), "").empty());
        std::map<std::string, std::size_t> macs;  // device id -> number of MACs
        std::pair<json_int_t, std::string> last{0, ""};
        for (std::size_t page = 0; page < c.pages.size(); ++page) {
            const Answer a = list(static_cast<int>(page));
            EXPECT_EQ(int_at(a, {"result", "page"}), static_cast<json_int_t>(page));
            EXPECT_EQ(int_at(a, {"result", "count"}), c.listed);
            const json_t* devices = json_object_get_recursive(a.json.get(), {"result", "devices"});
            ASSERT_EQ(json_array_size(devices), c.pages[page]) << c.listed << " page " << page;
            size_t i = 0;
            const json_t* d = nullptr;
            json_array_foreach(devices, i, d) {
                const std::pair<json_int_t, std::string> key{
                    json_integer_value(json_object_get(d, "created")),
                    nk::json_string_member(d, "device_id")};
                EXPECT_LT(last, key);
                last = key;
                macs[key.second] = json_array_size(json_object_get(d, "macs"));
            }
        }
        ASSERT_EQ(macs.size(), static_cast<std::size_t>(c.listed));
        for (const auto& [id, count] : macs)
            EXPECT_EQ(count, id == box_id() ? 0u : 1u) << id;  // the BOX's MAC is not known
        EXPECT_EQ(macs.count(box_id()), 1u);
    }
}

TEST_F(CloudEmuTest, MalformedAndUnknownRequestsGetTheErrorForm) {
    struct Case {
        const char* command;
        const char* body;
        int code;
    };
    const std::string dest = R"("connect_destination": {"device_id": "no-such-device"})";
    const std::vector<Case> cases = {
        {"get_device_info", R"({"connect_destination": {"device_id": "x"}, "fields": []})", 404},
        {"connect_device", "not json", 400},
        {"connect_device", R"(["a4:5e:60:c2:1f:0b"])", 400},
        {"connect_device", R"({"box_detected_name": "x"})", 400},
        {"connect_device", R"({"mac": 5})", 400},
        {"connect_device", R"({"mac": "a4:5e:60:c2:1f"})", 400},
        {"list_devices_v2", R"({"limit": "20", "fields": [], "page": 0})", 400},
        {"list_devices_v2", R"({"limit": 20, "fields": [1], "page": 0})", 400},
        {"get_device_info", R"({"connect_destination": {}, "fields": []})", 400},
        {"set_device_onbox", R"({"connect_destination": {"device_id": "x"}})", 400},
        {"set_device_additional_info",
         R"({"type": "bogus", "data": {}, "connect_destination": {"device_id": "x"}})", 400},
        {"set_device_type", R"({"connect_destination": {"device_id": "x"}})", 400},
        {"reboot_box", "{}", 404},
    };
    for (const Case& c : cases) {
        const Answer a = request(c.command, c.body);
        SCOPED_TRACE(std::string(c.command) + " " + c.body);
        EXPECT_EQ(a.status, "0");
        EXPECT_EQ(nk::extract_response_status(a.json.get()), c.code);
        EXPECT_EQ(nk::extract_error_data_code(a.json.get()), c.code);
        EXPECT_NE(text_at(a, {"error", "data", "data", "err_data"}), nullptr);
    }
}

TEST_F(CloudEmuTest, StateSurvivesARestart) {
    const std::string mac = "a4:5e:60:c2:1f:0b";
    const std::string id = connect(mac, "nas");
    const std::string box = box_id();
    const Answer onbox =
        request("set_device_onbox",
                R"({"connect_destination": {"device_id": ")" + id +
                    R"("}, "onbox": 1, "network": 0, "ip_list": {")" + mac +
                    R"(": {"ipv4": ["192.168.1.20"], "ipv6": []}}, "ip": "192.168.1.20"})");
    ASSERT_EQ(nk::extract_response_status(onbox.json.get()), 0);

    ASSERT_EQ(server_->stop(SIGTERM), 0);
    ASSERT_EQ(nk::setMgmt::deleteKey("/daemons/nkcloudd/device_id"), 0);
    ASSERT_TRUE(start_server());

    EXPECT_EQ(box_id(), box);
    EXPECT_EQ(connect(mac, ""), id);
    const Answer a = list(0);
    EXPECT_NE(listed(a, box), nullptr);
    const json_t* d = listed(a, id);
    ASSERT_NE(d, nullptr);
    EXPECT_STREQ(nk::json_string_member(d, "box_detected_name"), "nas");
    EXPECT_STREQ(nk::json_string_member(d, "box_device_id"), box.c_str());
    EXPECT_STREQ(nk::json_string_member(d, "ip"), "192.168.1.20");
    EXPECT_EQ(json_integer_value(json_object_get(d, "onbox")), 1);
    EXPECT_EQ(nk::json_dump_compact(json_object_get(d, "ip_list")),
              R"({")" + mac + R"(":{"ipv4":["192.168.1.20"],"ipv6":[]}})");
}

TEST_F(CloudEmuTest, OperatorCommandsChangeDevicesAndAnnounceThem) {
    const char* names[] = {"devmgmt:device_inventory"};
    ASSERT_EQ(nkex_subscribe(client_, names, 1), 0);
    std::string out;
    ASSERT_EQ(emu("add 02:11:22:33:44:55 Phone", &out), 0);
    const std::string id = out.substr(0, out.find('\n'));
    EXPECT_EQ(emu("add 02:11:22:33:44:55 Again"), 1);
    EXPECT_STREQ(text_at(info(id, R"(["display_name"])"), {"result", "display_name"}), "Phone");
    ASSERT_EQ(emu("rename " + id + " Tablet"), 0);
    out.clear();
    ASSERT_EQ(emu("list", &out), 0);
    EXPECT_NE(out.find(R"("friendly_name":"Tablet")"), std::string::npos) << out;
    EXPECT_NE(out.find(R"("device_id":")" + box_id()), std::string::npos) << out;
    EXPECT_EQ(emu("remove " + box_id()), 1);
    ASSERT_EQ(emu("remove " + id), 0);
    EXPECT_EQ(nk::extract_response_status(info(id, "[]").json.get()), 404);

    ASSERT_TRUE(wait_events(3));
    const std::vector<nk::json_ptr> seen = events();
    const std::string params = R"({"device_id":")" + id + R"("})";
    const std::vector<std::string> expected = {
        R"({"app_fields":{"event":"new_device","event_params":)" + params + "}}",
        R"({"app_fields":{"event":"device_info_changed","event_params":{"device_id":")" + id +
            R"(","fields":["friendly_name","display_name"]}}})",
        R"({"app_fields":{"event":"device_removed","event_params":)" + params + "}}",
    };
    ASSERT_EQ(seen.size(), expected.size());
    for (std::size_t i = 0; i < seen.size(); ++i)
        EXPECT_EQ(nk::json_dump_compact(seen[i].get()), expected[i]);
}

TEST_F(CloudEmuTest, FaultsShapeAnswersUntilUsedUp) {
    ASSERT_EQ(server_->stop(SIGTERM), 0);
    ASSERT_TRUE(start_server({"--fault", "delay=400,count=1"}));
    const std::string mac = "a4:5e:60:c2:1f:0b";
    const auto begin = std::chrono::steady_clock::now();
    const std::string id = connect(mac, "");
    EXPECT_GE(std::chrono::steady_clock::now() - begin, 400ms);
    EXPECT_EQ(connect(mac, ""), id);
    EXPECT_EQ(server_->count_lines("fault delay=400"), 1);

    struct Case {
        const char* spec;
        const char* status;  // "" for no answer at all
        int code;            // of the error answer, 0 for none
    };
    for (const Case& c :
         {Case{"status=3,count=1", "3", 0}, Case{"drop,count=1", "", 0},
          Case{"error=503,command=connect_device,count=1,text=busy, retry", "0", 503}}) {
        SCOPED_TRACE(c.spec);
        ASSERT_EQ(emu(std::string("fault add '") + c.spec + "'"), 0);
        if (c.code != 0) {  // limited to connect_device: other commands pass
            EXPECT_EQ(nk::extract_response_status(info(id, "[]").json.get()), 0);
        }
        const Answer a = request("connect_device", R"({"mac": ")" + mac + R"("})");
        EXPECT_EQ(a.status, c.status);
        if (c.code != 0) {
            EXPECT_EQ(nk::extract_error_data_code(a.json.get()), c.code);
            EXPECT_STREQ(text_at(a, {"error", "data", "data", "err_data"}), "busy, retry");
        }
        EXPECT_EQ(connect(mac, ""), id);  // used up
    }
    std::string left;
    EXPECT_EQ(emu("fault list", &left), 0);
    EXPECT_EQ(left, "");
}

TEST_F(CloudEmuTest, AdditionalInfoIsStoredPerDeviceAndKindAndShown) {
    const std::string id = connect("a4:5e:60:c2:1f:0b", "laptop");
    const std::string dest = R"("connect_destination": {"device_id": ")" + id + R"("})";
    const auto fingerprint = [&](const char* type, const char* list) {
        return request("set_device_additional_info",
                       fmt::format(R"({{"type": "{}", {}, "data": {{"option_list": "{}", )"
                                   R"("vendor_class": "MSFT 5.0"}}}})",
                                   type, dest, list));
    };
    const auto user_agent = [&](const char* ua) {
        return request("set_device_type", fmt::format(R"({{{}, "user_agent": "{}"}})", dest, ua));
    };
    EXPECT_EQ(int_at(fingerprint("fingerprint", "1 3"), {"result", "status"}), 0);
    EXPECT_EQ(int_at(fingerprint("fingerprint", "1 3 6"), {"result", "status"}), 0);  // replaces
    EXPECT_EQ(int_at(fingerprint("fingerprintv6", "23 24"), {"result", "status"}), 0);
    EXPECT_STREQ(text_at(user_agent("Mozilla/5.0 (X11)"), {"result", "status"}), "ok");
    EXPECT_STREQ(text_at(user_agent("curl/7.88.1"), {"result", "status"}), "ok");
    EXPECT_STREQ(text_at(user_agent("Mozilla/5.0 (X11)"), {"result", "status"}), "ok");

    // Faults on these commands: nothing is stored.
    for (const auto& [spec, status] : std::vector<std::pair<std::string, std::string>>{
             {"status=3", "3"}, {"error=503", "0"}, {"drop", ""}}) {
        ASSERT_EQ(emu("fault add " + spec + ",command=set_device_type,count=1"), 0);
        EXPECT_EQ(user_agent("dropped/1.0").status, status) << spec;
    }

    std::string out;
    ASSERT_EQ(emu("show " + id + " --json", &out), 0);
    const nk::json_ptr shown(json_loads(out.c_str(), 0, nullptr));
    EXPECT_EQ(nk::json_dump_compact(json_object_get_recursive(
                  shown.get(), {"additional_info", "fingerprint", "data"})),
              R"({"option_list":"1 3 6","vendor_class":"MSFT 5.0"})");
    EXPECT_NE(json_object_get_recursive(shown.get(), {"additional_info", "fingerprintv6"}),
              nullptr);
    std::vector<std::string> agents;
    size_t i = 0;
    const json_t* ua = nullptr;
    json_array_foreach(json_object_get(shown.get(), "user_agents"), i, ua) {
        agents.emplace_back(nk::json_string_member(ua, "user_agent"));
    }
    EXPECT_EQ(agents, (std::vector<std::string>{"Mozilla/5.0 (X11)", "curl/7.88.1"}));

    out.clear();
    ASSERT_EQ(emu("show " + id, &out), 0);
    EXPECT_NE(out.find("fingerprint (DHCPv4)"), std::string::npos) << out;
    EXPECT_NE(out.find("  option_list        1 3 6\n"), std::string::npos) << out;
    EXPECT_NE(out.find("user agents (2)"), std::string::npos) << out;
    EXPECT_EQ(emu("show no-such-device"), 1);
}

}  // namespace
