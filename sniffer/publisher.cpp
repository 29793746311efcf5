#include "publisher.h"

#include <cstdlib>
#include <optional>

#include <nk/constants.h>
#include <nk/log.h>

namespace nk::sniffer {

namespace {

// The sifter subscribes to nothing: nothing arrives here.
void ignore_message(const Message*, void*) {}

std::string broker_address() {
    const char* broker = std::getenv(nk::kBrokerEnv);
    return broker != nullptr && *broker != '\0' ? broker : nk::kBrokerDefault;
}

}  // namespace

Publisher::Publisher(std::string client, std::size_t capacity, std::chrono::milliseconds reconnect)
    : client_(std::move(client)), capacity_(capacity), reconnect_(reconnect) {}

Publisher::~Publisher() {
    stop();
}

void Publisher::start() {
    if (!thread_.joinable())
        thread_ = std::thread([this] { run(); });
}

void Publisher::stop() {
    {
        const std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    wake_.notify_all();
    if (thread_.joinable())
        thread_.join();
}

bool Publisher::offer(Event event) {
    {
        const std::lock_guard lock(mutex_);
        if (queue_.size() >= capacity_) {
            ++dropped_;
            return false;
        }
        queue_.push_back(std::move(event));
    }
    wake_.notify_one();
    return true;
}

bool Publisher::connect() {
    if (bus_ != nullptr)
        return true;
    bus_ = nkex_init(client_.c_str(), ignore_message, nullptr, 1);
    if (bus_ != nullptr)
        NK_LOG(nk::log::INFO, "connected to the bus at {:s}", broker_address());
    return bus_ != nullptr;
}

void Publisher::run() {
    bool said_unreachable = false;
    std::unique_lock lock(mutex_);
    while (true) {
        if (bus_ == nullptr) {
            lock.unlock();
            const bool connected = connect();
            lock.lock();
            if (!connected) {
                if (!said_unreachable) {
                    NK_LOG(nk::log::WARN,
                           "bus at {:s} not reachable; trying every {:d} ms, events beyond {:d} "
                           "queued are dropped meanwhile",
                           broker_address(), reconnect_.count(), capacity_);
                    said_unreachable = true;
                }
                if (wake_.wait_for(lock, reconnect_, [this] { return stopping_; }))
                    break;
                continue;
            }
            said_unreachable = false;
        }
        wake_.wait(lock, [this] { return stopping_ || !queue_.empty(); });
        if (queue_.empty() && stopping_)
            break;
        const Event event = std::move(queue_.front());
        queue_.pop_front();
        lock.unlock();
        if (nkex_send_message(bus_, event.name.c_str(), event.payload.data(),
                              event.payload.size()) == 0) {
            ++sent_;
            NK_LOG(nk::log::DEBUG, "sent {:s} {:s}", event.name, event.payload);
        } else {
            ++dropped_;
        }
        lock.lock();
    }
    // What the bus never got is lost: counted with the rest.
    dropped_ += queue_.size();
    queue_.clear();
    lock.unlock();
    if (bus_ != nullptr) {
        nkex_uninit(bus_);
        bus_ = nullptr;
    }
}

}  // namespace nk::sniffer
