// Sends events on the bus from a thread of its own, fed through a bounded queue, so that
// capture never waits for the bus. While the bus is slow or away the queue fills and further
// events are dropped and counted; memory stays bounded.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <thread>

#include <nk/nkex.h>

#include "sighting.h"

namespace nk::sniffer {

class Publisher {
public:
    // `client` names this program on the bus.
    explicit Publisher(std::string client, std::size_t capacity = 256,
                       std::chrono::milliseconds reconnect = std::chrono::seconds(5));
    ~Publisher();
    Publisher(const Publisher&) = delete;
    Publisher& operator=(const Publisher&) = delete;

    // Starts the sending thread, which connects to the bus (NKEX_BROKER) and keeps trying
    // every `reconnect` until it can.
    void start();
    // Sends what is queued while the bus is there, then disconnects. Also done on destruction.
    void stop();

    // Never waits: false, and the event counted as dropped, when the queue is full.
    bool offer(Event event);

    std::uint64_t dropped() const { return dropped_; }
    std::uint64_t sent() const { return sent_; }
    std::size_t capacity() const { return capacity_; }

private:
    void run();
    // Connects unless connected; false after a failed attempt.
    bool connect();

    const std::string client_;
    const std::size_t capacity_;
    const std::chrono::milliseconds reconnect_;
    std::mutex mutex_;
    std::condition_variable wake_;
    std::deque<Event> queue_;
    bool stopping_ = false;
    std::thread thread_;
    nkex_handle* bus_ = nullptr;  // the sending thread's alone
    std::atomic<std::uint64_t> dropped_{0};
    std::atomic<std::uint64_t> sent_{0};
};

}  // namespace nk::sniffer
