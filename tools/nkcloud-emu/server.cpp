#include "server.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "cloud_commands.h"
#include "nk/io.h"
#include "nk/log.h"
#include "nk/nkex.h"
#include "nk/setmgmt.h"

namespace nkemu {

namespace {

using Clock = std::chrono::steady_clock;

// The real connector's client name, so that the broker keeps its requests across restarts.
constexpr const char* kBusClientName = "nkcloudd";
constexpr const char* kSubscription = "cloud::connect/box_mgmt/#";

struct BusCloser {
    void operator()(nkex_handle* handle) const { nkex_uninit(handle); }
};

// The BOX's own device, made on first use and kept in the database from then on.
std::optional<std::string> register_box(CloudDb& db) {
    CloudDb::Transaction tx(db);
    std::optional<CloudDevice> box;
    if (!tx.ok() || !db.find_box(box))
        return std::nullopt;
    if (box)
        return box->id;
    const std::string id = new_device_id();
    if (id.empty()) {
        NK_LOG(nk::log::ERROR, "no randomness for the BOX's device id");
        return std::nullopt;
    }
    if (!db.insert(make_device(id, "", static_cast<std::int64_t>(std::time(nullptr)))) ||
        !tx.commit()) {
        return std::nullopt;
    }
    NK_LOG(nk::log::INFO, "registered the BOX as device {:s}", id);
    return id;
}

bool publish_box_id(const std::string& id) {
    if (nk::setMgmt::init() < 0) {
        NK_LOG(nk::log::ERROR, "settings store {:s} unavailable", nk::setMgmt::root());
        return false;
    }
    const bool ok = nk::setMgmt::setKey(kBoxDeviceIdKey, id) >= 0;
    if (!ok)
        NK_LOG(nk::log::ERROR, "cannot write {:s}", kBoxDeviceIdKey);
    nk::setMgmt::uninit();
    return ok;
}

class Server {
public:
    Server(CloudDb& db, std::string box_id, std::vector<Fault> faults)
        : db_(db), commands_(db, std::move(box_id)), faults_(std::move(faults)) {}

    bool connect();
    int run(int stop_fd);

private:
    struct Request {
        std::string name;
        std::string body;
        std::uint64_t id = 0;
    };
    struct Delayed {
        Clock::time_point due;
        std::uint64_t id = 0;
        std::string answer;
    };

    static void on_message(const Message* message, void* context);
    std::vector<Request> take_requests();
    std::optional<Fault> take_fault(const std::string& command);
    void process(const Request& request);
    void respond(std::uint64_t id, int status, const std::string& data);
    void send_due_answers();
    int poll_timeout_ms() const;

    CloudDb& db_;
    CloudCommands commands_;
    std::vector<Fault> faults_;
    std::vector<Delayed> delayed_;
    std::mutex mutex_;
    std::vector<Request> queue_;  // filled on the bus thread, under mutex_
    nk::io::unique_fd wake_;
    // Last member: closed first, so that no callback outlives the queue.
    std::unique_ptr<nkex_handle, BusCloser> bus_;
};

bool Server::connect() {
    wake_.reset(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!wake_) {
        NK_LOG(nk::log::ERROR, "eventfd(): {:s}", std::strerror(errno));
        return false;
    }
    bus_.reset(nkex_init(kBusClientName, on_message, this, 1));
    if (!bus_) {
        NK_LOG(nk::log::ERROR, "cannot reach the bus");
        return false;
    }
    const char* names[] = {kSubscription};
    if (nkex_subscribe(bus_.get(), names, 1) != 0) {
        NK_LOG(nk::log::ERROR, "cannot subscribe to {:s}", kSubscription);
        return false;
    }
    return true;
}

// Bus thread: only queue the request and wake the loop.
void Server::on_message(const Message* message, void* context) {
    auto* self = static_cast<Server*>(context);
    Request request{message->name, std::string(message->data ? message->data : "", message->length),
                    message->id};
    const std::lock_guard lock(self->mutex_);
    self->queue_.push_back(std::move(request));
    const std::uint64_t one = 1;
    [[maybe_unused]] const ssize_t n = ::write(self->wake_.get(), &one, sizeof(one));
}

std::vector<Server::Request> Server::take_requests() {
    std::uint64_t count = 0;
    [[maybe_unused]] const ssize_t n = ::read(wake_.get(), &count, sizeof(count));
    std::vector<Request> taken;
    const std::lock_guard lock(mutex_);
    taken.swap(queue_);
    return taken;
}

std::optional<Fault> Server::take_fault(const std::string& command) {
    std::optional<Fault> fault = nkemu::take_fault(faults_, command);
    if (!fault && !db_.take_fault(command, fault))
        NK_LOG(nk::log::WARN, "stored faults unreadable; answering {:s} normally", command);
    return fault;
}

void Server::process(const Request& request) {
    std::string command = request.name;
    if (command.compare(0, kCommandPrefix.size(), kCommandPrefix) == 0)
        command.erase(0, kCommandPrefix.size());
    NK_LOG(nk::log::DEBUG, "request {:s} id={:d}: {:s}", command, request.id, request.body);
    const std::optional<Fault> fault = take_fault(command);
    if (fault)
        NK_LOG(nk::log::INFO, "fault {:s} on {:s} id={:d}", format_fault(*fault), command,
               request.id);
    if (fault && fault->kind == FaultKind::Drop)
        return;
    if (fault && fault->kind == FaultKind::Status) {
        respond(request.id, static_cast<int>(fault->value), "");
        return;
    }
    // An error fault stands for a cloud that failed before doing anything.
    const nk::json_ptr answer = fault && fault->kind == FaultKind::Error
                                    ? error_answer(static_cast<int>(fault->value), fault->text)
                                    : commands_.handle(command, request.body);
    const std::string text = nk::json_dump_compact(answer.get());
    if (fault && fault->kind == FaultKind::Delay) {
        delayed_.push_back(
            {Clock::now() + std::chrono::milliseconds(fault->value), request.id, text});
        return;
    }
    respond(request.id, 0, text);
}

void Server::respond(std::uint64_t id, int status, const std::string& data) {
    NK_LOG(nk::log::DEBUG, "answer id={:d} status={:d}: {:s}", id, status, data);
    if (nkex_send_response(bus_.get(), status, id, data.data(), data.size()) != 0)
        NK_LOG(nk::log::WARN, "cannot answer request {:d}", id);
}

void Server::send_due_answers() {
    const Clock::time_point now = Clock::now();
    const auto due = std::stable_partition(delayed_.begin(), delayed_.end(),
                                           [now](const Delayed& d) { return d.due <= now; });
    for (auto it = delayed_.begin(); it != due; ++it)
        respond(it->id, 0, it->answer);
    delayed_.erase(delayed_.begin(), due);
}

int Server::poll_timeout_ms() const {
    if (delayed_.empty())
        return -1;
    const auto first =
        std::min_element(delayed_.begin(), delayed_.end(),
                         [](const Delayed& a, const Delayed& b) { return a.due < b.due; });
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(first->due - Clock::now());
    return static_cast<int>(std::max<std::int64_t>(0, left.count()));
}

int Server::run(int stop_fd) {
    pollfd fds[2] = {{stop_fd, POLLIN, 0}, {wake_.get(), POLLIN, 0}};
    for (;;) {
        if (::poll(fds, 2, poll_timeout_ms()) < 0 && errno != EINTR) {
            NK_LOG(nk::log::ERROR, "poll(): {:s}", std::strerror(errno));
            return 1;
        }
        if (fds[0].revents != 0)
            break;
        if (fds[1].revents != 0) {
            for (const Request& request : take_requests())
                process(request);
        }
        send_due_answers();
    }
    NK_LOG(nk::log::INFO, "exiting");
    return 0;
}

}  // namespace

int serve(CloudDb& db, int stop_fd, std::vector<Fault> faults) {
    if (stop_fd < 0)
        return 1;
    const std::optional<std::string> box_id = register_box(db);
    if (!box_id || !publish_box_id(*box_id))
        return 1;
    Server server(db, *box_id, std::move(faults));
    if (!server.connect())
        return 1;
    NK_LOG(nk::log::INFO, "cloud ready, BOX device_id={:s}", *box_id);
    return server.run(stop_fd);
}

}  // namespace nkemu
