// A scripted cloud connector on the broker NKEX_BROKER names: answers chosen case by case.
#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include <nk/nkex.h>

namespace nk::test {

// Answers each command (the last piece of its name) as scripted; the others go unanswered.
struct ScriptedCloud {
    std::mutex mutex;
    std::map<std::string, std::pair<int, std::string>> answers;  // status and text
    std::vector<std::pair<std::string, std::string>> requests;   // command and body
    std::vector<std::chrono::steady_clock::time_point> times;    // of each request
    nkex_handle* handle = nullptr;
    // When set, answers every request instead: from its body and how many came before it.
    std::function<std::string(const std::string& body, std::size_t n)> script;

    ~ScriptedCloud() { nkex_uninit(handle); }
    bool connect() {
        const char* names[] = {"cloud::connect/box_mgmt/#"};
        handle = nkex_init("nkcloudd", serve, this, 1);
        return handle && nkex_subscribe(handle, names, 1) == 0;
    }

    void set(const std::string& command, const char* text, int status = 0) {
        const std::lock_guard lock(mutex);
        if (text)
            answers[command] = {status, text};
        else
            answers.erase(command);
    }
    std::vector<std::pair<std::string, std::string>> sent() {
        const std::lock_guard lock(mutex);
        return requests;
    }
    std::vector<std::string> bodies(const std::string& command) {
        const std::lock_guard lock(mutex);
        std::vector<std::string> out;
        for (const auto& [name, body] : requests) {
            if (name == command)
                out.push_back(body);
        }
        return out;
    }
    std::vector<std::chrono::steady_clock::time_point> sent_at() {
        const std::lock_guard lock(mutex);
        return times;
    }
    static void serve(const Message* m, void* context) {
        auto* cloud = static_cast<ScriptedCloud*>(context);
        std::string command(m->name);
        command.erase(0, command.rfind('/') + 1);
        const std::lock_guard lock(cloud->mutex);
        cloud->requests.emplace_back(command, std::string(m->data ? m->data : "", m->length));
        cloud->times.push_back(std::chrono::steady_clock::now());
        const auto it = cloud->answers.find(command);
        if (cloud->script) {
            const std::string text =
                cloud->script(cloud->requests.back().second, cloud->times.size() - 1);
            nkex_send_response(cloud->handle, 0, m->id, text.data(), text.size());
        } else if (it != cloud->answers.end())
            nkex_send_response(cloud->handle, it->second.first, m->id, it->second.second.data(),
                               it->second.second.size());
    }
};

inline std::string id_answer(const std::string& id) {
    return R"({"result": {"device_id": ")" + id + R"("}})";
}

}  // namespace nk::test
