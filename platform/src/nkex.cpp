// The message bus over an MQTT 5 broker, through libmosquitto's threaded client.
//
// Threads: libmosquitto's loop thread runs the connection and delivers messages and answers;
// a small timer thread of each handle expires asynchronous requests (their callbacks then get
// status "110") and forgets received requests nobody answered. User callbacks from both
// threads are serialised by one mutex, so the application sees them one at a time. No
// libmosquitto call is made while holding the state mutex, and no user callback is called
// with it held.
#include "nk/nkex.h"

#include <mosquitto.h>
#include <mqtt_protocol.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <condition_variable>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <type_traits>
#include <vector>

#include "bus_credentials.h"
#include "nk/io.h"
#include "nk/log.h"
#include "nkex_mqtt.h"
#include "stop_signal.h"

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;
using namespace nk::nkex_mqtt;

constexpr int kQos = 1;
constexpr int kKeepaliveSeconds = 30;
constexpr uint32_t kSessionExpirySeconds = 300;
constexpr unsigned kReconnectDelaySeconds = 1;
constexpr unsigned kReconnectDelayMaxSeconds = 8;
constexpr auto kFirstConnectWait = 2s;
// How long closing waits for the broker to acknowledge what was sent.
constexpr auto kDrainWait = 2s;
constexpr auto kReceivedLifetime = 60s;
// Bounds the table of unanswered requests against a flood; the oldest go first.
constexpr std::size_t kMaxReceived = 4096;

struct MosquittoDeleter {
    void operator()(mosquitto* m) const { mosquitto_destroy(m); }
};
using MosquittoPtr = std::unique_ptr<mosquitto, MosquittoDeleter>;

// A synchronous answer handed to the caller; freed by nkex_free_response.
struct OwnedResponse {
    Message message;
    std::string data;
};
static_assert(std::is_standard_layout_v<OwnedResponse> && offsetof(OwnedResponse, message) == 0,
              "nkex_free_response converts the Message pointer back");

// A waiting synchronous request. Its waiter sleeps in poll() on `wake` and the daemon's stop
// pipe together, so that a stop never waits behind a silent peer.
struct SyncSlot {
    bool done = false;
    std::string status;
    std::string data;
    nk::io::unique_fd wake{::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)};

    void notify() const {
        const uint64_t one = 1;
        [[maybe_unused]] const ssize_t n = ::write(wake.get(), &one, sizeof one);
    }
};

bool readable(int fd) {
    pollfd p{fd, POLLIN, 0};
    return fd >= 0 && ::poll(&p, 1, 0) > 0;
}

struct PendingAsync {
    Clock::time_point deadline;
    nkex_response_callback_t callback;
    void* context;
    std::string name;
};

struct ReceivedRequest {
    Clock::time_point expiry;
    std::string response_topic;
    std::optional<std::string> correlation;
};

std::once_flag g_lib_once;

}  // namespace

struct nkex_handle {
public:
    nkex_handle(std::string name, nkex_msg_callback_t callback, void* context)
        : client_id_(std::move(name)),
          response_topic_(std::string(kRspPrefix) + client_id_),
          callback_(callback),
          context_(context),
          timeout_(timeout_from_env()),
          next_request_id_(random_start_id()) {}
    ~nkex_handle() { shutdown(); }
    nkex_handle(const nkex_handle&) = delete;
    nkex_handle& operator=(const nkex_handle&) = delete;

    bool start(const BrokerAddress& address);
    void shutdown();
    bool on_bus_thread() const { return t_bus_owner == this; }

    int subscribe(const char* const* names, std::size_t count);
    int send_event(const char* name, const void* data, std::size_t length);
    int send_async(const char* name, const void* data, std::size_t length,
                   nkex_response_callback_t callback, void* context);
    int send_sync(const Message& request, Message** response);
    bool wait_answer(std::unique_lock<std::mutex>& lock, const SyncSlot& slot,
                     Clock::time_point deadline);
    int respond(int status, uint64_t request_id, const void* data, std::size_t length);
    void set_wait_hook(int fd, nkex_wait_hook_t hook, void* context);

private:
    static void on_connect(mosquitto*, void* self, int rc, int flags, const mosquitto_property*);
    static void on_disconnect(mosquitto*, void* self, int rc, const mosquitto_property*);
    static void on_message(mosquitto*, void* self, const mosquitto_message* msg,
                           const mosquitto_property* props);
    static void on_subscribe(mosquitto*, void* self, int mid, int count, const int* granted,
                             const mosquitto_property*);
    static void on_publish(mosquitto*, void* self, int mid, int reason, const mosquitto_property*);
    static void on_log(mosquitto*, void* self, int level, const char* text);

    bool create_client();
    void connected();
    int send_subscribe(std::vector<std::string> topics, int* mid);
    bool wait_for_suback(int mid, uint64_t epoch);
    void drain();
    void handle_request(std::string_view name, const mosquitto_message& msg,
                        const mosquitto_property* props);
    void handle_response(const mosquitto_message& msg, const mosquitto_property* props);
    uint64_t remember_request(std::string response_topic, std::optional<std::string> correlation);

    int publish(const std::string& topic, const void* data, std::size_t length,
                const Properties& props);
    int publish_request(const std::string& topic, uint64_t id, const void* data,
                        std::size_t length);
    std::optional<uint64_t> register_async(const std::string& name,
                                           nkex_response_callback_t callback, void* context);
    std::optional<Clock::time_point> next_expiry_locked() const;
    std::vector<std::pair<uint64_t, PendingAsync>> take_expired_locked(Clock::time_point now);
    void prune_received_locked(Clock::time_point now);
    void timer_main();

    void deliver_message(const Message& message);
    void deliver_answer(const PendingAsync& pending, const Message& answer);
    void deliver_timeout(uint64_t id, const PendingAsync& pending);

    static thread_local const nkex_handle* t_bus_owner;

    const std::string client_id_;
    const std::string response_topic_;
    const nkex_msg_callback_t callback_;
    void* const context_;
    const std::chrono::milliseconds timeout_;
    MosquittoPtr mosq_;
    bool loop_started_ = false;
    std::thread timer_;

    std::mutex mutex_;                    // guards everything below
    std::condition_variable changed_;     // connection, answers, waiters leaving
    std::condition_variable timer_wake_;  // new deadlines, closing
    bool connected_ = false;
    bool closing_ = false;
    uint64_t connection_epoch_ = 0;  // counts disconnections
    int unacked_publishes_ = 0;      // sent or queued, not yet acknowledged by the broker
    std::set<std::string> topics_;
    std::set<int> connect_mids_;   // subscriptions made again on connect
    std::map<int, bool> subacks_;  // SUBACKs for nkex_subscribe: granted or not
    uint64_t next_request_id_;
    std::map<uint64_t, SyncSlot*> sync_waiting_;
    std::map<uint64_t, PendingAsync> async_waiting_;  // deadlines grow with the id
    uint64_t next_received_id_ = 1;
    std::map<uint64_t, ReceivedRequest> received_;  // expiries grow with the id
    int wait_fd_ = -1;  // served by wait_hook_ while a synchronous request waits
    nkex_wait_hook_t wait_hook_ = nullptr;
    void* wait_context_ = nullptr;

    std::mutex callback_mutex_;  // one user callback at a time
};

thread_local const nkex_handle* nkex_handle::t_bus_owner = nullptr;

bool nkex_handle::create_client() {
    std::call_once(g_lib_once, [] { mosquitto_lib_init(); });
    mosq_.reset(mosquitto_new(client_id_.c_str(), /*clean_session=*/false, this));
    if (!mosq_) {
        NK_LOG(nk::log::ERROR, "mosquitto_new({:s}) failed: {:s}", client_id_,
               std::strerror(errno));
        return false;
    }
    mosquitto_int_option(mosq_.get(), MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5);
    if (const std::optional<nk::BusCredentials> account = nk::read_bus_credentials(client_id_)) {
        if (mosquitto_username_pw_set(mosq_.get(), account->username.c_str(),
                                      account->password.c_str()) != MOSQ_ERR_SUCCESS) {
            NK_LOG(nk::log::ERROR, "{:s}: cannot use its bus account", client_id_);
            return false;
        }
    }
    mosquitto_reconnect_delay_set(mosq_.get(), kReconnectDelaySeconds, kReconnectDelayMaxSeconds,
                                  true);
    mosquitto_connect_v5_callback_set(mosq_.get(), &nkex_handle::on_connect);
    mosquitto_disconnect_v5_callback_set(mosq_.get(), &nkex_handle::on_disconnect);
    mosquitto_message_v5_callback_set(mosq_.get(), &nkex_handle::on_message);
    mosquitto_subscribe_v5_callback_set(mosq_.get(), &nkex_handle::on_subscribe);
    mosquitto_publish_v5_callback_set(mosq_.get(), &nkex_handle::on_publish);
    mosquitto_log_callback_set(mosq_.get(), &nkex_handle::on_log);
    return true;
}

bool nkex_handle::start(const BrokerAddress& address) {
    if (!create_client())
        return false;
    Properties props;
    if (!props.add_int32(MQTT_PROP_SESSION_EXPIRY_INTERVAL, kSessionExpirySeconds))
        return false;
    // Properties and address are kept by libmosquitto for its own reconnects, even when this
    // first attempt fails (the broker may be starting right now).
    const int rc = mosquitto_connect_bind_v5(mosq_.get(), address.host.c_str(), address.port,
                                             kKeepaliveSeconds, nullptr, props.get());
    if (rc == MOSQ_ERR_INVAL || rc == MOSQ_ERR_NOMEM || rc == MOSQ_ERR_NOT_SUPPORTED) {
        NK_LOG(nk::log::ERROR, "cannot connect to {:s}:{:d}: {:s}", address.host, address.port,
               mosquitto_strerror(rc));
        return false;
    }
    if (mosquitto_loop_start(mosq_.get()) != MOSQ_ERR_SUCCESS) {
        NK_LOG(nk::log::ERROR, "mosquitto_loop_start failed");
        return false;
    }
    loop_started_ = true;
    timer_ = std::thread(&nkex_handle::timer_main, this);

    std::unique_lock lock(mutex_);
    if (!changed_.wait_for(lock, kFirstConnectWait, [this] { return connected_; })) {
        NK_LOG(nk::log::ERROR, "no connection to the broker at {:s}{:s}{:s} as {:s}", address.host,
               address.port ? ":" : "", address.port ? std::to_string(address.port) : "",
               client_id_);
        return false;
    }
    return true;
}

void nkex_handle::shutdown() {
    {
        const std::lock_guard lock(mutex_);
        if (closing_)
            return;
        closing_ = true;
        for (const auto& [id, slot] : sync_waiting_)
            slot->notify();
    }
    changed_.notify_all();
    timer_wake_.notify_all();
    if (loop_started_) {
        drain();
        mosquitto_disconnect(mosq_.get());
        mosquitto_loop_stop(mosq_.get(), false);
    }
    if (timer_.joinable())
        timer_.join();

    std::map<uint64_t, PendingAsync> pending;
    {
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [this] { return sync_waiting_.empty(); });
        pending.swap(async_waiting_);
        received_.clear();
    }
    // The remaining asynchronous requests still get their one call, as a time-out.
    for (const auto& [id, p] : pending)
        deliver_timeout(id, p);
}

// The broker drops what it has not read yet when the socket closes, so closing first waits
// (briefly) until everything sent was acknowledged.
void nkex_handle::drain() {
    std::unique_lock lock(mutex_);
    const bool drained = changed_.wait_for(
        lock, kDrainWait, [this] { return unacked_publishes_ == 0 || !connected_; });
    if (!drained || unacked_publishes_ > 0) {
        NK_LOG(nk::log::WARN, "{:s} closes with {:d} messages not acknowledged", client_id_,
               unacked_publishes_);
    }
}

// ---- connection (loop thread) ----

void nkex_handle::on_connect(mosquitto*, void* self, int rc, int /*flags*/,
                             const mosquitto_property*) {
    auto* h = static_cast<nkex_handle*>(self);
    t_bus_owner = h;
    if (rc != 0) {
        NK_LOG(nk::log::WARN, "broker refused {:s}: {:s}", h->client_id_,
               mosquitto_reason_string(rc));
        return;
    }
    h->connected();
}

void nkex_handle::connected() {
    std::vector<std::string> topics{response_topic_};
    {
        const std::lock_guard lock(mutex_);
        topics.insert(topics.end(), topics_.begin(), topics_.end());
    }
    const std::size_t count = topics.size() - 1;
    int mid = 0;
    if (send_subscribe(std::move(topics), &mid) == MOSQ_ERR_SUCCESS) {
        const std::lock_guard lock(mutex_);
        connect_mids_.insert(mid);
    }
    NK_LOG(nk::log::INFO, "{:s} connected to the broker ({:d} subscriptions)", client_id_, count);
    {
        const std::lock_guard lock(mutex_);
        connected_ = true;
    }
    changed_.notify_all();
}

int nkex_handle::send_subscribe(std::vector<std::string> topics, int* mid) {
    std::vector<char*> list;
    for (std::string& topic : topics)
        list.push_back(topic.data());
    const int rc = mosquitto_subscribe_multiple(mosq_.get(), mid, static_cast<int>(list.size()),
                                                list.data(), kQos, 0, nullptr);
    if (rc != MOSQ_ERR_SUCCESS) {
        NK_LOG(nk::log::WARN, "{:s} cannot subscribe now ({:s}), will on connect", client_id_,
               mosquitto_strerror(rc));
    }
    return rc;
}

void nkex_handle::on_disconnect(mosquitto*, void* self, int rc, const mosquitto_property*) {
    auto* h = static_cast<nkex_handle*>(self);
    t_bus_owner = h;
    bool closing = false;
    {
        const std::lock_guard lock(h->mutex_);
        h->connected_ = false;
        ++h->connection_epoch_;
        // SUBSCRIBEs in flight are lost with the connection; connect makes them again.
        h->connect_mids_.clear();
        h->subacks_.clear();
        closing = h->closing_;
    }
    h->changed_.notify_all();
    if (!closing) {
        NK_LOG(nk::log::WARN, "{:s} lost the broker ({:d}), reconnecting", h->client_id_, rc);
    }
}

void nkex_handle::on_subscribe(mosquitto*, void* self, int mid, int count, const int* granted,
                               const mosquitto_property*) {
    auto* h = static_cast<nkex_handle*>(self);
    bool ok = true;
    for (int i = 0; i < count; ++i) {
        if (granted[i] > kQos) {
            NK_LOG(nk::log::ERROR, "{:s}: broker refused a subscription: {:s}", h->client_id_,
                   mosquitto_reason_string(granted[i]));
            ok = false;
        }
    }
    {
        const std::lock_guard lock(h->mutex_);
        if (h->connect_mids_.erase(mid) > 0)
            return;
        h->subacks_[mid] = ok;
    }
    h->changed_.notify_all();
}

void nkex_handle::on_publish(mosquitto*, void* self, int mid, int reason,
                             const mosquitto_property*) {
    auto* h = static_cast<nkex_handle*>(self);
    if (reason >= 0x80) {
        NK_LOG(nk::log::WARN, "{:s}: broker refused message {:d}: {:s}", h->client_id_, mid,
               mosquitto_reason_string(reason));
    }
    bool drained = false;
    {
        const std::lock_guard lock(h->mutex_);
        if (h->unacked_publishes_ > 0)
            --h->unacked_publishes_;
        drained = h->unacked_publishes_ == 0;
    }
    if (drained)
        h->changed_.notify_all();
}

void nkex_handle::on_log(mosquitto*, void*, int level, const char* text) {
    int ours = nk::log::TRACE;
    if (level == MOSQ_LOG_ERR) {
        ours = nk::log::WARN;
    } else if (level == MOSQ_LOG_WARNING) {
        ours = nk::log::INFO;
    } else if (level == MOSQ_LOG_NOTICE || level == MOSQ_LOG_INFO) {
        ours = nk::log::DEBUG;
    }
    NK_LOG(ours, "libmosquitto: {:s}", text ? text : "");
}

// ---- incoming messages (loop thread) ----

void nkex_handle::on_message(mosquitto*, void* self, const mosquitto_message* msg,
                             const mosquitto_property* props) {
    auto* h = static_cast<nkex_handle*>(self);
    t_bus_owner = h;
    const std::string_view topic(msg->topic ? msg->topic : "");
    if (topic == h->response_topic_) {
        h->handle_response(*msg, props);
    } else if (starts_with(topic, kMsgPrefix) && topic.size() > kMsgPrefix.size()) {
        h->handle_request(topic.substr(kMsgPrefix.size()), *msg, props);
    } else {
        NK_LOG(nk::log::DEBUG, "dropping message on unexpected topic {:s}", topic);
    }
}

void nkex_handle::handle_request(std::string_view name, const mosquitto_message& msg,
                                 const mosquitto_property* props) {
    Message message{};
    copy_text(message.name, name);
    if (name.size() >= NKEX_NAME_MAX) {
        NK_LOG(nk::log::DEBUG, "name of {:d} bytes cut to {:s}", name.size(), message.name);
    }
    message.data = msg.payloadlen > 0 ? static_cast<const char*>(msg.payload) : nullptr;
    message.length = msg.payloadlen > 0 ? static_cast<std::size_t>(msg.payloadlen) : 0;
    std::optional<std::string> response_topic = read_string(props, MQTT_PROP_RESPONSE_TOPIC);
    if (response_topic) {
        message.id = remember_request(std::move(*response_topic),
                                      read_binary(props, MQTT_PROP_CORRELATION_DATA));
    }
    NK_LOG(nk::log::DEBUG, "received {}", message);
    deliver_message(message);
}

uint64_t nkex_handle::remember_request(std::string response_topic,
                                       std::optional<std::string> correlation) {
    std::unique_lock lock(mutex_);
    if (received_.size() >= kMaxReceived) {
        NK_LOG(nk::log::WARN, "too many unanswered requests, forgetting request {:d}",
               received_.begin()->first);
        received_.erase(received_.begin());
    }
    const uint64_t id = next_received_id_++;
    received_.emplace(id, ReceivedRequest{Clock::now() + kReceivedLifetime,
                                          std::move(response_topic), std::move(correlation)});
    const bool first = received_.size() == 1;
    lock.unlock();
    if (first)
        timer_wake_.notify_one();
    return id;
}

void nkex_handle::handle_response(const mosquitto_message& msg, const mosquitto_property* props) {
    const std::optional<std::string> correlation = read_binary(props, MQTT_PROP_CORRELATION_DATA);
    const std::optional<uint64_t> id =
        correlation ? decode_correlation(*correlation) : std::nullopt;
    if (!id) {
        NK_LOG(nk::log::DEBUG, "dropping answer without a valid correlation id");
        return;
    }
    // A responder that says nothing about the status delivered its answer.
    const std::string status = read_user_property(props, kStatusProperty).value_or(NKEX_STATUS_OK);
    const std::string_view data(static_cast<const char*>(msg.payload),
                                msg.payloadlen > 0 ? static_cast<std::size_t>(msg.payloadlen) : 0);

    std::unique_lock lock(mutex_);
    if (const auto it = sync_waiting_.find(*id); it != sync_waiting_.end()) {
        if (!it->second->done) {
            it->second->done = true;
            it->second->status = status;
            it->second->data = std::string(data);
            it->second->notify();
        }
        lock.unlock();
        changed_.notify_all();
        return;
    }
    const auto it = async_waiting_.find(*id);
    if (it == async_waiting_.end()) {
        lock.unlock();
        NK_LOG(nk::log::DEBUG, "dropping answer {:d}: no request waits for it", *id);
        return;
    }
    const PendingAsync pending = std::move(it->second);
    async_waiting_.erase(it);
    lock.unlock();

    Message answer{};
    copy_text(answer.name, pending.name);
    copy_text(answer.status, status);
    answer.id = *id;
    answer.data = data.empty() ? nullptr : data.data();
    answer.length = data.size();
    deliver_answer(pending, answer);
}

// ---- user callbacks ----

void nkex_handle::deliver_message(const Message& message) {
    if (callback_ == nullptr)
        return;
    const std::lock_guard lock(callback_mutex_);
    callback_(&message, context_);
}

void nkex_handle::deliver_answer(const PendingAsync& pending, const Message& answer) {
    if (pending.callback == nullptr)
        return;
    const std::lock_guard lock(callback_mutex_);
    pending.callback(pending.context, &answer);
}

void nkex_handle::deliver_timeout(uint64_t id, const PendingAsync& pending) {
    NK_LOG(nk::log::WARN, "request {:s} ({:d}) got no answer", pending.name, id);
    Message answer{};
    copy_text(answer.name, pending.name);
    copy_text(answer.status, NKEX_STATUS_TIMEOUT);
    answer.id = id;
    deliver_answer(pending, answer);
}

// ---- expiry (timer thread) ----

std::optional<Clock::time_point> nkex_handle::next_expiry_locked() const {
    std::optional<Clock::time_point> next;
    if (!async_waiting_.empty())
        next = async_waiting_.begin()->second.deadline;
    if (!received_.empty()) {
        const Clock::time_point expiry = received_.begin()->second.expiry;
        if (!next || expiry < *next)
            next = expiry;
    }
    return next;
}

std::vector<std::pair<uint64_t, PendingAsync>> nkex_handle::take_expired_locked(
    Clock::time_point now) {
    std::vector<std::pair<uint64_t, PendingAsync>> expired;
    while (!async_waiting_.empty() && async_waiting_.begin()->second.deadline <= now) {
        auto node = async_waiting_.extract(async_waiting_.begin());
        expired.emplace_back(node.key(), std::move(node.mapped()));
    }
    return expired;
}

void nkex_handle::prune_received_locked(Clock::time_point now) {
    while (!received_.empty() && received_.begin()->second.expiry <= now) {
        NK_LOG(nk::log::DEBUG, "request {:d} was never answered", received_.begin()->first);
        received_.erase(received_.begin());
    }
}

void nkex_handle::timer_main() {
    t_bus_owner = this;
    std::unique_lock lock(mutex_);
    while (!closing_) {
        const std::optional<Clock::time_point> next = next_expiry_locked();
        if (next) {
            timer_wake_.wait_until(lock, *next);
        } else {
            timer_wake_.wait(lock);
        }
        if (closing_)
            break;
        const Clock::time_point now = Clock::now();
        prune_received_locked(now);
        const auto expired = take_expired_locked(now);
        if (expired.empty())
            continue;
        lock.unlock();
        for (const auto& [id, pending] : expired)
            deliver_timeout(id, pending);
        lock.lock();
    }
}

// ---- sending (any thread) ----

int nkex_handle::publish(const std::string& topic, const void* data, std::size_t length,
                         const Properties& props) {
    if (length > INT_MAX || (length > 0 && data == nullptr)) {
        NK_LOG(nk::log::ERROR, "bad payload ({:d} bytes) for {:s}", length, topic);
        return -1;
    }
    {
        const std::lock_guard lock(mutex_);
        ++unacked_publishes_;
    }
    const int rc = mosquitto_publish_v5(mosq_.get(), nullptr, topic.c_str(),
                                        static_cast<int>(length), data, kQos, false, props.get());
    if (rc == MOSQ_ERR_SUCCESS)
        return 0;
    // At QoS 1 libmosquitto keeps the message and sends it once connected again.
    if (rc == MOSQ_ERR_NO_CONN) {
        NK_LOG(nk::log::DEBUG, "{:s} queued until the broker is back", topic);
        return 0;
    }
    {
        const std::lock_guard lock(mutex_);
        --unacked_publishes_;
    }
    NK_LOG(nk::log::ERROR, "cannot publish on {:s}: {:s}", topic, mosquitto_strerror(rc));
    return -1;
}

int nkex_handle::publish_request(const std::string& topic, uint64_t id, const void* data,
                                 std::size_t length) {
    Properties props;
    if (!props.add_string(MQTT_PROP_RESPONSE_TOPIC, response_topic_) ||
        !props.add_binary(MQTT_PROP_CORRELATION_DATA, encode_correlation(id))) {
        return -1;
    }
    return publish(topic, data, length, props);
}

int nkex_handle::subscribe(const char* const* names, std::size_t count) {
    if (names == nullptr && count > 0)
        return -1;
    bool failed = false;
    std::vector<std::string> topics;
    for (std::size_t i = 0; i < count; ++i) {
        std::optional<std::string> topic = message_topic(names[i], true);
        if (!topic) {
            NK_LOG(nk::log::ERROR, "cannot subscribe to bad name \"{:s}\"",
                   printable_name(names[i]));
            failed = true;
            continue;
        }
        topics.push_back(std::move(*topic));
    }
    uint64_t epoch = 0;
    {
        const std::lock_guard lock(mutex_);
        if (closing_)
            return -1;
        topics_.insert(topics.begin(), topics.end());
        epoch = connection_epoch_;
    }
    if (topics.empty())
        return failed ? -1 : 0;
    int mid = 0;
    if (send_subscribe(std::move(topics), &mid) != MOSQ_ERR_SUCCESS)
        return -1;
    // The bus thread cannot wait for the answer it would have to read itself.
    if (on_bus_thread())
        return failed ? -1 : 0;
    return wait_for_suback(mid, epoch) && !failed ? 0 : -1;
}

// True when the broker granted the subscription; a lost connection or no answer within the
// time-out is a failure (the subscription is made again on the next connect).
bool nkex_handle::wait_for_suback(int mid, uint64_t epoch) {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, timeout_, [&] {
        return subacks_.count(mid) > 0 || connection_epoch_ != epoch || closing_;
    });
    const auto it = subacks_.find(mid);
    if (it == subacks_.end()) {
        NK_LOG(nk::log::WARN, "{:s}: subscription not confirmed by the broker", client_id_);
        return false;
    }
    const bool granted = it->second;
    subacks_.erase(it);
    return granted;
}

int nkex_handle::send_event(const char* name, const void* data, std::size_t length) {
    const std::optional<std::string> topic = message_topic(name, false);
    if (!topic) {
        NK_LOG(nk::log::ERROR, "cannot send to bad name \"{:s}\"", printable_name(name));
        return -1;
    }
    return publish(*topic, data, length, Properties());
}

std::optional<uint64_t> nkex_handle::register_async(const std::string& name,
                                                    nkex_response_callback_t callback,
                                                    void* context) {
    std::unique_lock lock(mutex_);
    if (closing_)
        return std::nullopt;
    const uint64_t id = next_request_id_++;
    async_waiting_.emplace(id, PendingAsync{Clock::now() + timeout_, callback, context, name});
    const bool first = async_waiting_.size() == 1;
    lock.unlock();
    if (first)
        timer_wake_.notify_one();
    return id;
}

int nkex_handle::send_async(const char* name, const void* data, std::size_t length,
                            nkex_response_callback_t callback, void* context) {
    const std::optional<std::string> topic = message_topic(name, false);
    if (!topic) {
        NK_LOG(nk::log::ERROR, "cannot send request to bad name \"{:s}\"", printable_name(name));
        return -1;
    }
    const std::optional<uint64_t> id =
        register_async(topic->substr(kMsgPrefix.size()), callback, context);
    if (!id)
        return -1;
    if (publish_request(*topic, *id, data, length) == 0)
        return 0;
    // Not sent: the caller learns it from the return value, not from the callback, unless the
    // time-out has called it already.
    const std::lock_guard lock(mutex_);
    return async_waiting_.erase(*id) > 0 ? -1 : 0;
}

int nkex_handle::send_sync(const Message& request, Message** response) {
    if (on_bus_thread()) {
        NK_LOG(nk::log::ERROR, "synchronous request {:s} from the bus thread refused",
               printable_name(request.name));
        return -1;
    }
    const std::optional<std::string> topic = message_topic(request.name, false);
    if (!topic || (request.length > 0 && request.data == nullptr)) {
        NK_LOG(nk::log::ERROR, "cannot send bad request \"{:s}\"", printable_name(request.name));
        return -1;
    }
    if (readable(nk::daemon::detail::stop_fd())) {
        NK_LOG(nk::log::WARN, "request {:s} not sent: stopping", request.name);
        return -1;
    }
    SyncSlot slot;
    if (!slot.wake) {
        NK_LOG(nk::log::ERROR, "eventfd: {:s}", std::strerror(errno));
        return -1;
    }
    std::unique_lock lock(mutex_);
    if (closing_)
        return -1;
    const uint64_t id = next_request_id_++;
    const Clock::time_point deadline = Clock::now() + timeout_;
    sync_waiting_.emplace(id, &slot);
    lock.unlock();
    const int rc = publish_request(*topic, id, request.data, request.length);
    lock.lock();
    const bool stopped = rc == 0 && !wait_answer(lock, slot, deadline);
    sync_waiting_.erase(id);
    lock.unlock();
    changed_.notify_all();  // shutdown waits for the waiters to leave
    if (!slot.done) {
        if (stopped)
            NK_LOG(nk::log::WARN, "request {:s} ({:d}) abandoned: stopping", request.name, id);
        else if (rc == 0)
            NK_LOG(nk::log::WARN, "request {:s} ({:d}) got no answer", request.name, id);
        return -1;
    }
    auto owned = std::make_unique<OwnedResponse>();
    owned->data = std::move(slot.data);
    copy_text(owned->message.name, request.name);
    copy_text(owned->message.status, slot.status);
    owned->message.id = id;
    owned->message.data = owned->data.empty() ? nullptr : owned->data.data();
    owned->message.length = owned->data.size();
    *response = &owned.release()->message;
    return 0;
}

// Until the answer, closing or the deadline; false when a stop of the daemon cut it short.
// Called and returns with `lock` held.
bool nkex_handle::wait_answer(std::unique_lock<std::mutex>& lock, const SyncSlot& slot,
                              Clock::time_point deadline) {
    // A hook that itself waits on a synchronous request does not serve its descriptor again.
    static thread_local bool t_in_hook = false;
    const int stop = nk::daemon::detail::stop_fd();
    const int hook_fd = t_in_hook || wait_hook_ == nullptr ? -1 : wait_fd_;
    while (!slot.done && !closing_) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
        if (left.count() <= 0)
            return true;
        const nkex_wait_hook_t hook = wait_hook_;
        void* const hook_context = wait_context_;
        lock.unlock();
        pollfd fds[3] = {{slot.wake.get(), POLLIN, 0}, {stop, POLLIN, 0}, {hook_fd, POLLIN, 0}};
        const int n = ::poll(fds, 3, static_cast<int>(std::min<long long>(left.count(), INT_MAX)));
        if (n > 0 && (fds[2].revents & POLLIN) != 0 && (fds[0].revents & POLLIN) == 0) {
            t_in_hook = true;
            hook(hook_context);
            t_in_hook = false;
        }
        lock.lock();
        if (n > 0 && (fds[1].revents & (POLLIN | POLLHUP)) != 0)
            return slot.done;
    }
    return true;
}

int nkex_handle::respond(int status, uint64_t request_id, const void* data, std::size_t length) {
    ReceivedRequest request;
    {
        const std::lock_guard lock(mutex_);
        const auto it = received_.find(request_id);
        if (it == received_.end()) {
            NK_LOG(nk::log::WARN, "no request {:d} to answer (answered or expired)", request_id);
            return -1;
        }
        request = std::move(it->second);
        received_.erase(it);
    }
    Properties props;
    if (request.correlation &&
        !props.add_binary(MQTT_PROP_CORRELATION_DATA, *request.correlation)) {
        return -1;
    }
    if (!props.add_user(kStatusProperty, std::to_string(status)))
        return -1;
    return publish(request.response_topic, data, length, props);
}

// ---- C interface ----

nkex_handle* nkex_init(const char* name, nkex_msg_callback_t callback, void* context,
                       int /*flags*/) {
    const std::optional<std::string> topic = message_topic(name, false);
    if (!topic) {
        NK_LOG(nk::log::ERROR, "bad bus client name \"{:s}\"", printable_name(name));
        return nullptr;
    }
    const std::optional<BrokerAddress> address = broker_from_env();
    if (!address)
        return nullptr;
    auto handle = std::make_unique<nkex_handle>(std::string(name), callback, context);
    if (!handle->start(*address))
        return nullptr;
    return handle.release();
}

int nkex_subscribe(nkex_handle* handle, const char* const* names, size_t count) {
    return handle ? handle->subscribe(names, count) : -1;
}

int nkex_send_message(nkex_handle* handle, const char* name, const void* data, size_t length) {
    return handle ? handle->send_event(name, data, length) : -1;
}

int nkex_send_request(nkex_handle* handle, const char* destination, const void* data, size_t length,
                      nkex_response_callback_t callback, void* context) {
    return handle ? handle->send_async(destination, data, length, callback, context) : -1;
}

int nkex_send_request_and_wait_response(nkex_handle* handle, const Message* request,
                                        Message** response) {
    if (handle == nullptr || request == nullptr || response == nullptr)
        return -1;
    *response = nullptr;
    return handle->send_sync(*request, response);
}

void nkex_handle::set_wait_hook(int fd, nkex_wait_hook_t hook, void* context) {
    const std::lock_guard lock(mutex_);
    wait_fd_ = hook != nullptr ? fd : -1;
    wait_hook_ = fd >= 0 ? hook : nullptr;
    wait_context_ = context;
}

void nkex_set_wait_hook(nkex_handle* handle, int fd, nkex_wait_hook_t hook, void* context) {
    if (handle != nullptr)
        handle->set_wait_hook(fd, hook, context);
}

int nkex_send_response(nkex_handle* handle, int status, uint64_t request_id, const void* data,
                       size_t length) {
    return handle ? handle->respond(status, request_id, data, length) : -1;
}

void nkex_free_response(Message* response) {
    if (response == nullptr)
        return;
    const std::unique_ptr<OwnedResponse> owned(reinterpret_cast<OwnedResponse*>(response));
}

void nkex_uninit(nkex_handle* handle) {
    if (handle == nullptr)
        return;
    if (handle->on_bus_thread()) {
        NK_LOG(nk::log::ERROR, "nkex_uninit from a bus callback refused");
        return;
    }
    const std::unique_ptr<nkex_handle> owned(handle);
}
