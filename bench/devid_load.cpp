// A steady load of "request_device_id" for long runs: N requests a second until SIGINT/SIGTERM
// (or --seconds), then it waits for every answer or time-out and writes, per second of sending,
// how many were sent and what became of them, so that a run's script can judge the seconds it
// chooses (scripts/soak leaves out those around broker restarts).
//   devid_load [--rate N] [--seconds S] [--targets FILE] [--lan A.B.C] [--box-mac MAC]
//              [--out FILE] [--lost FILE]
// FILE lists the LAN's clients, "MAC IP" a line; it is read again whenever it changes. The mix
// in 20 requests: 16 for those clients, 2 for 64 MACs the LAN does not have (the daemon gives
// them temporary ids), 2 invalid (the BOX's MAC, a malformed MAC, an empty MAC, an address
// outside the LAN). The bus is $NKEX_BROKER, the account nkdevices ($NKEX_CREDENTIALS_DIR); a
// request is unanswered after $NKEX_TIMEOUT_MS.
#include <getopt.h>
#include <sys/stat.h>
#include <sysexits.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <fmt/format.h>
#include <fmt/os.h>
#include <nk/log.h>
#include <nk/nkex.h>

#include "device_id_requests.h"

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

struct Options {
    int rate = 200;
    long seconds = 0;  // 0: until a signal
    std::string targets;
    std::string lan = "198.51.100";
    std::string box_mac = "02:00:00:00:01:01";
    std::string out;
    std::string lost;
};

enum Outcome : int { kWaiting, kAnswered, kFailed, kTimedOut, kNotSent };

struct Request {
    std::int64_t epoch_ms = 0;
    std::string payload;
    std::atomic<int> outcome{kWaiting};
};

// Per second of sending: sent, answered, answered with a failure status, timed out, not sent.
struct Second {
    long counts[5] = {};
};

std::atomic<bool> g_stop{false};
std::atomic<std::size_t> g_open{0};

void on_signal(int) {
    g_stop = true;
}

void on_answer(void* context, const Message* response) {
    auto* request = static_cast<Request*>(context);
    const std::string status(response->status);
    request->outcome = status == NKEX_STATUS_OK        ? kAnswered
                       : status == NKEX_STATUS_TIMEOUT ? kTimedOut
                                                       : kFailed;
    --g_open;
}

std::int64_t epoch_ms() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

// The clients' list, read again when the file's modification time changes.
class Targets {
public:
    explicit Targets(std::string file) : file_(std::move(file)) {}

    const std::vector<std::pair<std::string, std::string>>& current() {
        struct stat st {};
        if (file_.empty() || ::stat(file_.c_str(), &st) != 0)
            return list_;
        if (st.st_mtim.tv_sec == seen_.tv_sec && st.st_mtim.tv_nsec == seen_.tv_nsec)
            return list_;
        seen_ = st.st_mtim;
        list_ = nk::bench::read_clients(file_);
        return list_;
    }

private:
    std::string file_;
    timespec seen_{};
    std::vector<std::pair<std::string, std::string>> list_;
};

std::string payload_for(std::size_t i, Targets& targets, const Options& o) {
    const std::size_t slot = i % 20;
    const auto& clients = targets.current();
    std::string mac;
    std::string ip;
    if (slot < 16 && !clients.empty()) {
        const auto& c = clients[(i / 20 * 16 + slot) % clients.size()];
        mac = c.first;
        ip = c.second;
    } else if (slot == 19) {
        static const char* const kBadMacs[] = {"zz:zz", ""};
        const std::size_t k = (i / 20) % 4;
        mac = k == 2 ? o.box_mac : k == 3 ? "02:cc:00:00:00:01" : kBadMacs[k];
        ip = k == 3 ? "203.0.113.7" : fmt::format("{}.{}", o.lan, 50 + k);
    } else {
        const std::size_t u = (i / 20 * 3 + slot) % 64;
        mac = fmt::format("02:bb:00:00:00:{:02x}", u);
        ip = fmt::format("{}.{}", o.lan, 20 + u);
    }
    return nk::bench::device_id_request(mac, ip);
}

std::optional<Options> parse(int argc, char** argv) {
    static const option kLong[] = {
        {"rate", required_argument, nullptr, 'r'},    {"seconds", required_argument, nullptr, 's'},
        {"targets", required_argument, nullptr, 't'}, {"lan", required_argument, nullptr, 'l'},
        {"box-mac", required_argument, nullptr, 'm'}, {"out", required_argument, nullptr, 'o'},
        {"lost", required_argument, nullptr, 'L'},    {"help", no_argument, nullptr, 'h'},
        {"version", no_argument, nullptr, 'V'},       {nullptr, 0, nullptr, 0}};
    Options o;
    int c = 0;
    while ((c = ::getopt_long(argc, argv, "hV", kLong, nullptr)) != -1) {
        switch (c) {
            case 'r':
                o.rate = std::atoi(optarg);
                break;
            case 's':
                o.seconds = std::atol(optarg);
                break;
            case 't':
                o.targets = optarg;
                break;
            case 'l':
                o.lan = optarg;
                break;
            case 'm':
                o.box_mac = optarg;
                break;
            case 'o':
                o.out = optarg;
                break;
            case 'L':
                o.lost = optarg;
                break;
            case 'h':
                fmt::print(
                    "usage: devid_load [--rate N] [--seconds S] [--targets FILE] [--lan A.B.C] "
                    "[--box-mac MAC] [--out FILE] [--lost FILE]\n");
                std::exit(0);
            case 'V':
                fmt::print("devid_load 1\n");
                std::exit(0);
            default:
                return std::nullopt;
        }
    }
    if (o.rate <= 0 || o.seconds < 0 || optind != argc) {
        fmt::print(stderr,
                   "devid_load: --rate must be positive, --seconds not negative, "
                   "no operands\n");
        return std::nullopt;
    }
    return o;
}

// One line a second of sending: epoch second, sent, answered, failed, timed out, not sent.
void write_seconds(const std::deque<Request>& requests, const std::string& file) {
    std::map<std::int64_t, Second> seconds;
    for (const Request& r : requests) {
        Second& s = seconds[r.epoch_ms / 1000];
        ++s.counts[0];
        const int outcome = r.outcome;
        if (outcome != kWaiting)
            ++s.counts[outcome];
    }
    auto out = fmt::output_file(file);
    for (const auto& [second, s] : seconds)
        out.print("{} {} {} {} {} {}\n", second, s.counts[0], s.counts[kAnswered],
                  s.counts[kFailed], s.counts[kTimedOut], s.counts[kNotSent]);
}

// Every request without an answer: epoch ms, outcome, payload.
void write_lost(const std::deque<Request>& requests, const std::string& file) {
    static const char* const kNames[] = {"waiting", "answered", "failed", "timeout", "not-sent"};
    auto out = fmt::output_file(file);
    for (const Request& r : requests) {
        const int outcome = r.outcome;
        if (outcome != kAnswered)
            out.print("{} {} {}\n", r.epoch_ms, kNames[outcome], r.payload);
    }
}

}  // namespace

int main(int argc, char** argv) {
    const std::optional<Options> o = parse(argc, argv);
    if (!o)
        return EX_USAGE;
    nk::log::set_level(nk::log::WARN);
    std::signal(SIGINT, on_signal);
    std::signal(SIGTERM, on_signal);
    // The tools' account: its answers come back on nkex/rsp/nkdevices-PID.
    const std::string me = fmt::format("nkdevices-{}", ::getpid());
    const nk::nkex_ptr bus(nkex_init(me.c_str(), nullptr, nullptr, 1));
    if (!bus) {
        fmt::print(stderr, "devid_load: no bus\n");
        return 1;
    }
    Targets targets(o->targets);
    std::deque<Request> requests;  // a deque keeps the callbacks' pointers valid as it grows
    const auto step = std::chrono::nanoseconds(1000000000LL / o->rate);
    const Clock::time_point start = Clock::now();
    const std::size_t limit = o->seconds > 0 ? static_cast<std::size_t>(o->rate * o->seconds) : 0;
    for (std::size_t i = 0; !g_stop && (limit == 0 || i < limit); ++i) {
        std::this_thread::sleep_until(start + step * static_cast<long>(i));
        Request& r = requests.emplace_back();
        r.payload = payload_for(i, targets, *o);
        r.epoch_ms = epoch_ms();
        ++g_open;
        if (nkex_send_request(bus.get(), "request_device_id", r.payload.data(), r.payload.size(),
                              on_answer, &r) != 0) {
            r.outcome = kNotSent;
            --g_open;
        }
    }
    // Every request ends, answered or at the bus's time-out.
    while (g_open > 0)
        std::this_thread::sleep_for(50ms);
    long counts[5] = {};
    for (const Request& r : requests)
        ++counts[r.outcome];
    if (!o->out.empty())
        write_seconds(requests, o->out);
    if (!o->lost.empty())
        write_lost(requests, o->lost);
    fmt::print("sent {} answered {} failed {} timeout {} not-sent {}\n", requests.size(),
               counts[kAnswered], counts[kFailed], counts[kTimedOut], counts[kNotSent]);
    return 0;
}
