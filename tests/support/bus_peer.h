// Bus clients of the tests' own: what a client received, and a peer that answers requests.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <cstdio>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <nk/json.h>
#include <nk/nkex.h>

#include "wait.h"

namespace nk::test {

struct Received {
    std::string name;
    std::string data;
    uint64_t id;
};

inline std::string payload(const Message& m) {
    return m.data ? std::string(m.data, m.length) : "";
}

// What a client received: events and requests, or the answers to its asynchronous requests
// (with the status as their name).
class Inbox {
public:
    std::vector<Received> received() const {
        const std::lock_guard lock(mutex_);
        return received_;
    }
    std::size_t count() const { return received().size(); }
    bool got(const std::string& data, std::chrono::milliseconds timeout = 5s) const {
        const auto has = [&](const Received& r) { return r.data == data; };
        const auto any = [&] {
            const std::vector<Received> all = received();
            return std::any_of(all.begin(), all.end(), has);
        };
        return wait_until(any, timeout);
    }
    // The payload of the first message of this name, waiting up to `timeout` for one.
    std::optional<std::string> first(const std::string& name,
                                     std::chrono::milliseconds timeout = 0ms) const {
        std::optional<std::string> found;
        const auto seen = [&] {
            const std::vector<Received> all = received();
            const auto it = std::find_if(all.begin(), all.end(),
                                         [&](const Received& r) { return r.name == name; });
            found = it == all.end() ? std::nullopt : std::optional(it->data);
            return found.has_value();
        };
        wait_until(seen, timeout);
        return found;
    }
    // The JSON payloads of the messages of this name whose text holds `part`.
    std::vector<nk::json_ptr> json(const std::string& name, const std::string& part) const {
        std::vector<nk::json_ptr> found;
        for (const Received& r : received()) {
            if (r.name == name && r.data.find(part) != std::string::npos)
                found.emplace_back(json_loads(r.data.c_str(), 0, nullptr));
        }
        return found;
    }
    static void on_answer(void* context, const Message* m) {
        static_cast<Inbox*>(context)->add({m->status, payload(*m), 0});
    }

protected:
    void add(Received r) {
        const std::lock_guard lock(mutex_);
        received_.push_back(std::move(r));
    }

private:
    mutable std::mutex mutex_;
    std::vector<Received> received_;
};

// A bus client that, when told to, answers every request with a status and "re:" + its data.
class Peer : public Inbox {
public:
    explicit Peer(const std::string& name, const std::vector<const char*>& topics = {}) {
        handle_ = nkex_init(name.c_str(), &Peer::on_message, this, 1);
        if (handle_ && !topics.empty()) {
            EXPECT_EQ(nkex_subscribe(handle_, topics.data(), topics.size()), 0);
        }
    }
    ~Peer() { nkex_uninit(handle_.load()); }
    nkex_handle* handle() const { return handle_; }
    void answer_with(int status) { answer_status_ = status; }

private:
    static void on_message(const Message* m, void* context) {
        auto* self = static_cast<Peer*>(context);
        self->add({m->name, payload(*m), m->id});
        const int status = self->answer_status_;
        if (status != kSilent && m->id != 0) {
            const std::string answer = "re:" + payload(*m);
            EXPECT_EQ(
                nkex_send_response(self->handle_, status, m->id, answer.data(), answer.size()), 0);
        }
    }

    static constexpr int kSilent = INT_MIN;
    std::atomic<nkex_handle*> handle_{nullptr};
    std::atomic<int> answer_status_{kSilent};
};

// Status and data of a synchronous request, or nothing when it failed.
inline std::optional<std::pair<std::string, std::string>> ask(nkex_handle* h,
                                                              const std::string& name,
                                                              const std::string& data) {
    Message request{};
    std::snprintf(request.name, sizeof(request.name), "%s", name.c_str());
    request.data = data.data();
    request.length = data.size();
    Message* response = nullptr;
    if (nkex_send_request_and_wait_response(h, &request, &response) != 0)
        return std::nullopt;
    std::pair<std::string, std::string> out{response->status, payload(*response)};
    nkex_free_response(response);
    return out;
}

}  // namespace nk::test
