// Load of "request_device_id" on the daemon, in one of two mixes.
//
// --mix latency (the default): RATE requests a second for S seconds, first to a responder of its
// own on the same broker that answers at once (the floor), then to the daemon, then, with
// --burst N, three bursts of N at once; the figures are the answers' latency percentiles, for
// the whole run and for each kind of request. In 10 requests: 8 for known clients, 1 for 256
// clients the daemon does not know yet (each registered at its first request), 1 invalid (in
// turn the BOX's MAC, an address outside the LAN, a malformed MAC).
//
// --mix soak: a steady RATE requests a second until SIGINT/SIGTERM (or --seconds), as the
// nkdevices account, for long runs (scripts/soak); then it waits for every answer or time-out
// and writes, per second of sending, how many were sent and what became of them (--out), and
// each request without an answer (--lost), so that the run's script judges the seconds it
// chooses. In 20 requests: 16 for known clients (FILE is read again whenever it changes), 3 for
// 64 MACs the LAN does not have (temporary ids), 1 invalid (in turn a malformed MAC, an empty
// MAC, the BOX's MAC, an address outside the LAN).
//
// FILE lists one known client a line, "MAC IP". The bus is $NKEX_BROKER; a request counts as
// unanswered after $NKEX_TIMEOUT_MS.
#include <getopt.h>
#include <sys/stat.h>
#include <sysexits.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <deque>
#include <fstream>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <fmt/format.h>
#include <fmt/os.h>
#include <fmt/ranges.h>
#include <nk/log.h>
#include <nk/nkex.h>

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr const char* kUsage =
    "usage: devid_latency [--mix latency|soak] [--rate N] [--seconds S] [--known FILE]\n"
    "                     [--lan A.B.C] [--box-mac MAC] [--pid PID] [--json]\n"
    "                     [--burst N]                  (latency)\n"
    "                     [--out FILE] [--lost FILE]   (soak)\n";

enum class Mix { Latency, Soak };

struct Options {
    Mix mix = Mix::Latency;
    int rate = 0;       // 0: the mix's default
    long seconds = -1;  // -1: the mix's default; 0 (soak only): until a signal
    int burst = 0;
    std::string known_file;
    std::string lan;
    std::string box_mac;
    long pid = 0;
    bool json = false;
    std::string out;
    std::string lost;
};

using Clients = std::vector<std::pair<std::string, std::string>>;

// "MAC IP" a line.
Clients read_clients(const std::string& file) {
    Clients clients;
    std::ifstream in(file);
    std::string mac;
    std::string ip;
    while (in >> mac >> ip)
        clients.emplace_back(mac, ip);
    return clients;
}

std::string device_id_request(const std::string& mac, const std::string& ip) {
    return fmt::format(R"({{"mac": "{}", "ip": "{}"}})", mac, ip);
}

// What a request asks about: a known client, one not known yet, or something invalid.
enum Kind : int { kKnown, kUnknown, kInvalid };
constexpr const char* kKindNames[] = {"known", "unknown", "invalid"};
enum class Invalid { BadMac, NoMac, BoxMac, OutsideLan };

// A mix: of every `round` requests the first `known` ask for the known clients in turn, the
// last is invalid, the others ask for `unknown` MACs the daemon has not seen, at addresses of
// the LAN from `first_host` on.
struct Shape {
    std::size_t round;
    std::size_t known;
    std::size_t unknown;
    std::size_t first_host;
    std::vector<Invalid> invalid;  // one a round, in turn
};
const Shape kLatencyShape{10, 8, 256, 2, {Invalid::BoxMac, Invalid::OutsideLan, Invalid::BadMac}};
const Shape kSoakShape{
    20, 16, 64, 20, {Invalid::BadMac, Invalid::NoMac, Invalid::BoxMac, Invalid::OutsideLan}};

struct Planned {
    Kind kind;
    std::string payload;
};

// The i-th request of a mix; without known clients their turns go to unknown ones.
Planned plan_request(std::size_t i, const Shape& s, const Clients& known, const Options& o) {
    const std::size_t slot = i % s.round;
    const std::size_t round = i / s.round;
    if (slot < s.known && !known.empty()) {
        const auto& [mac, ip] = known[(round * s.known + slot) % known.size()];
        return {kKnown, device_id_request(mac, ip)};
    }
    const std::size_t unknown_slots = s.round - s.known - 1;
    if (slot < s.known + unknown_slots || known.empty()) {
        const std::size_t u = (round * unknown_slots + slot - std::min(slot, s.known)) % s.unknown;
        return {kUnknown, device_id_request(fmt::format("02:bb:00:00:00:{:02x}", u),
                                            fmt::format("{}.{}", o.lan, s.first_host + u % 250))};
    }
    const Invalid what = s.invalid[round % s.invalid.size()];
    const std::string mac = what == Invalid::BadMac   ? "zz:zz"
                            : what == Invalid::NoMac  ? ""
                            : what == Invalid::BoxMac ? o.box_mac
                                                      : "02:cc:00:00:00:01";
    return {kInvalid,
            device_id_request(
                mac, what == Invalid::OutsideLan ? "203.0.113.7" : fmt::format("{}.9", o.lan))};
}

long rss_kib(long pid) {
    if (pid <= 0)
        return -1;
    std::ifstream in(fmt::format("/proc/{}/status", pid));
    std::string key;
    while (in >> key) {
        if (key == "VmRSS:") {
            long kib = -1;
            in >> kib;
            return kib;
        }
        in.ignore(1 << 12, '\n');
    }
    return -1;
}

// --- The latency mix ---

// One run's requests and what became of them; the callbacks write their slot only.
struct Run {
    std::vector<Clock::time_point> sent;
    std::vector<Clock::time_point> answered;
    std::unique_ptr<std::atomic<int>[]> state;  // 0 waiting, 1 answered, 2 failed
    std::atomic<std::size_t> done{0};

    explicit Run(std::size_t n) : sent(n), answered(n), state(new std::atomic<int>[n]) {
        for (std::size_t i = 0; i < n; ++i)
            state[i] = 0;
    }
};

Run* g_run = nullptr;

void on_latency_answer(void* context, const Message* response) {
    const auto i = reinterpret_cast<std::uintptr_t>(context);
    g_run->answered[i] = Clock::now();
    g_run->state[i] = std::string(response->status) == NKEX_STATUS_OK ? 1 : 2;
    ++g_run->done;
}

// The floor: a responder that does nothing but answer.
void answer_at_once(const Message* m, void* context) {
    auto* self = static_cast<nk::nkex_ptr*>(context);
    static const std::string text = R"({"device_id": "", "mac": "00:00:00:00:00:00"})";
    nkex_send_response(self->get(), 0, m->id, text.data(), text.size());
}

struct Figures {
    std::string what;
    std::size_t sent = 0;
    std::size_t unanswered = 0;
    double p50_us = 0;
    double p99_us = 0;
    double max_us = 0;
    double seconds = 0;
};

Figures summarize(const std::string& what, const std::vector<double>& latencies, std::size_t sent,
                  double seconds) {
    std::vector<double> us = latencies;
    std::sort(us.begin(), us.end());
    Figures f;
    f.what = what;
    f.sent = sent;
    f.seconds = seconds;
    f.unanswered = sent - us.size();
    if (!us.empty()) {
        f.p50_us = us[us.size() / 2];
        f.p99_us = us[std::min(us.size() - 1, us.size() * 99 / 100)];
        f.max_us = us.back();
    }
    return f;
}

// The whole run, then each kind of request apart.
std::vector<Figures> measure(nkex_handle* bus, const char* name,
                             const std::vector<Planned>& payloads, int rate,
                             const std::string& what) {
    Run run(payloads.size());
    g_run = &run;
    const auto step = std::chrono::nanoseconds(rate > 0 ? 1000000000LL / rate : 0);
    const Clock::time_point start = Clock::now();
    for (std::size_t i = 0; i < payloads.size(); ++i) {
        if (rate > 0)
            std::this_thread::sleep_until(start + step * static_cast<long>(i));
        run.sent[i] = Clock::now();
        const std::string& payload = payloads[i].payload;
        if (nkex_send_request(bus, name, payload.data(), payload.size(), on_latency_answer,
                              reinterpret_cast<void*>(static_cast<std::uintptr_t>(i))) != 0) {
            run.state[i] = 2;
            ++run.done;
        }
    }
    // Every request ends: answered, or failed at the bus's time-out.
    while (run.done < payloads.size())
        std::this_thread::sleep_for(10ms);
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    std::vector<double> all;
    std::vector<std::vector<double>> by_kind(3);
    std::vector<std::size_t> sent_by_kind(3);
    for (std::size_t i = 0; i < payloads.size(); ++i) {
        const Kind kind = payloads[i].kind;
        ++sent_by_kind[kind];
        if (run.state[i] != 1)
            continue;
        const double us =
            std::chrono::duration<double, std::micro>(run.answered[i] - run.sent[i]).count();
        all.push_back(us);
        by_kind[kind].push_back(us);
    }
    g_run = nullptr;
    std::vector<Figures> out{summarize(what, all, payloads.size(), seconds)};
    for (int k = 0; k < 3; ++k) {
        if (sent_by_kind[k] > 0)
            out.push_back(
                summarize(what + "." + kKindNames[k], by_kind[k], sent_by_kind[k], seconds));
    }
    return out;
}

void report(const std::vector<Figures>& figures, bool json) {
    for (const Figures& f : figures) {
        if (json) {
            fmt::print(R"({{"run": "{}", "sent": {}, "unanswered": {}, "p50_us": {:.0f}, )"
                       R"("p99_us": {:.0f}, "max_us": {:.0f}, "seconds": {:.1f}}})"
                       "\n",
                       f.what, f.sent, f.unanswered, f.p50_us, f.p99_us, f.max_us, f.seconds);
            continue;
        }
        fmt::print(
            "{:<15} sent {:>6}  unanswered {:>5}  p50 {:>7.0f} us  p99 {:>7.0f} us  "
            "max {:>8.0f} us  ({:.1f} s)\n",
            f.what, f.sent, f.unanswered, f.p50_us, f.p99_us, f.max_us, f.seconds);
    }
}

int run_latency(const Options& o) {
    const std::string me = fmt::format("devid-bench-{}", ::getpid());
    const nk::nkex_ptr asker(nkex_init(me.c_str(), nullptr, nullptr, 1));
    nk::nkex_ptr floor;
    floor.reset(nkex_init((me + "-floor").c_str(), answer_at_once, &floor, 1));
    const char* floor_name[] = {"bench_request_device_id"};
    if (!asker || !floor || nkex_subscribe(floor.get(), floor_name, 1) != 0) {
        fmt::print(stderr, "devid_latency: no bus\n");
        return 1;
    }
    const Clients known = read_clients(o.known_file);
    std::vector<Planned> payloads;
    for (std::size_t i = 0; i < static_cast<std::size_t>(o.rate) * o.seconds; ++i)
        payloads.push_back(plan_request(i, kLatencyShape, known, o));

    report(measure(asker.get(), floor_name[0], payloads, o.rate, "floor"), o.json);
    const long before = rss_kib(o.pid);
    report(measure(asker.get(), "request_device_id", payloads, o.rate, "daemon"), o.json);
    const long after = rss_kib(o.pid);
    // Three bursts: the memory a burst takes must be taken again, not added to.
    std::vector<long> burst_rss;
    for (int round = 0; o.burst > 0 && round < 3; ++round) {
        const std::vector<Planned> burst(
            payloads.begin(), payloads.begin() + std::min<std::size_t>(o.burst, payloads.size()));
        report(
            measure(asker.get(), "request_device_id", burst, 0, fmt::format("burst{}", round + 1)),
            o.json);
        burst_rss.push_back(rss_kib(o.pid));
    }
    if (o.pid > 0) {
        if (o.json)
            fmt::print(R"({{"rss_kib_before": {}, "rss_kib_after": {}, "rss_kib_bursts": [{}]}})"
                       "\n",
                       before, after, fmt::join(burst_rss, ", "));
        else
            fmt::print("daemon RSS: {} KiB before, {} KiB after the run, after each burst {} KiB\n",
                       before, after, fmt::join(burst_rss, ", "));
    }
    return 0;
}

// --- The soak mix ---

enum Outcome : int { kWaiting, kAnswered, kFailed, kTimedOut, kNotSent };
constexpr const char* kOutcomeNames[] = {"waiting", "answered", "failed", "timeout", "not-sent"};

struct Request {
    std::int64_t epoch_ms = 0;
    std::string payload;
    std::atomic<int> outcome{kWaiting};
};

std::atomic<bool> g_stop{false};
std::atomic<std::size_t> g_open{0};

void on_signal(int) {
    g_stop = true;
}

void on_soak_answer(void* context, const Message* response) {
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

// The clients' list, read again when the file's modification time changes: the LAN's clients
// come and go during a soak.
class Targets {
public:
    explicit Targets(std::string file) : file_(std::move(file)) {}

    const Clients& current() {
        struct stat st {};
        if (file_.empty() || ::stat(file_.c_str(), &st) != 0)
            return list_;
        if (st.st_mtim.tv_sec == seen_.tv_sec && st.st_mtim.tv_nsec == seen_.tv_nsec)
            return list_;
        seen_ = st.st_mtim;
        list_ = read_clients(file_);
        return list_;
    }

private:
    std::string file_;
    timespec seen_{};
    Clients list_;
};

// One line a second of sending: epoch second, sent, answered, failed, timed out, not sent.
void write_seconds(const std::deque<Request>& requests, const std::string& file) {
    std::map<std::int64_t, std::array<long, 5>> seconds;
    for (const Request& r : requests) {
        std::array<long, 5>& s = seconds[r.epoch_ms / 1000];
        ++s[0];
        const int outcome = r.outcome;
        if (outcome != kWaiting)
            ++s[outcome];
    }
    auto out = fmt::output_file(file);
    for (const auto& [second, s] : seconds)
        out.print("{} {} {} {} {} {}\n", second, s[0], s[kAnswered], s[kFailed], s[kTimedOut],
                  s[kNotSent]);
}

// Every request without an answer: epoch ms, outcome, payload.
void write_lost(const std::deque<Request>& requests, const std::string& file) {
    auto out = fmt::output_file(file);
    for (const Request& r : requests) {
        const int outcome = r.outcome;
        if (outcome != kAnswered)
            out.print("{} {} {}\n", r.epoch_ms, kOutcomeNames[outcome], r.payload);
    }
}

int run_soak(const Options& o) {
    std::signal(SIGINT, on_signal);
    std::signal(SIGTERM, on_signal);
    // The tools' account: its answers come back on nkex/rsp/nkdevices-PID.
    const std::string me = fmt::format("nkdevices-{}", ::getpid());
    const nk::nkex_ptr bus(nkex_init(me.c_str(), nullptr, nullptr, 1));
    if (!bus) {
        fmt::print(stderr, "devid_latency: no bus\n");
        return 1;
    }
    Targets targets(o.known_file);
    std::deque<Request> requests;  // a deque keeps the callbacks' pointers valid as it grows
    const auto step = std::chrono::nanoseconds(1000000000LL / o.rate);
    const long before = rss_kib(o.pid);
    const Clock::time_point start = Clock::now();
    const std::size_t limit = o.seconds > 0 ? static_cast<std::size_t>(o.rate * o.seconds) : 0;
    for (std::size_t i = 0; !g_stop && (limit == 0 || i < limit); ++i) {
        std::this_thread::sleep_until(start + step * static_cast<long>(i));
        Request& r = requests.emplace_back();
        r.payload = plan_request(i, kSoakShape, targets.current(), o).payload;
        r.epoch_ms = epoch_ms();
        ++g_open;
        if (nkex_send_request(bus.get(), "request_device_id", r.payload.data(), r.payload.size(),
                              on_soak_answer, &r) != 0) {
            r.outcome = kNotSent;
            --g_open;
        }
    }
    // Every request ends, answered or at the bus's time-out.
    while (g_open > 0)
        std::this_thread::sleep_for(50ms);
    const long after = rss_kib(o.pid);
    long counts[5] = {};
    for (const Request& r : requests)
        ++counts[r.outcome];
    if (!o.out.empty())
        write_seconds(requests, o.out);
    if (!o.lost.empty())
        write_lost(requests, o.lost);
    if (o.json) {
        fmt::print(R"({{"run": "soak", "sent": {}, "answered": {}, "failed": {}, "timeout": {}, )"
                   R"("not_sent": {})",
                   requests.size(), counts[kAnswered], counts[kFailed], counts[kTimedOut],
                   counts[kNotSent]);
        if (o.pid > 0)
            fmt::print(R"(, "rss_kib_before": {}, "rss_kib_after": {})", before, after);
        fmt::print("}}\n");
        return 0;
    }
    fmt::print("sent {} answered {} failed {} timeout {} not-sent {}\n", requests.size(),
               counts[kAnswered], counts[kFailed], counts[kTimedOut], counts[kNotSent]);
    if (o.pid > 0)
        fmt::print("daemon RSS: {} KiB before, {} KiB after the run\n", before, after);
    return 0;
}

// --- Command line ---

std::optional<Options> usage_error(const std::string& what) {
    fmt::print(stderr, "devid_latency: {}\n{}", what, kUsage);
    return std::nullopt;
}

bool number(const char* text, long& value) {
    char* end = nullptr;
    errno = 0;
    value = std::strtol(text, &end, 10);
    return errno == 0 && end != text && *end == '\0';
}

const char* name_of(const option* options, int c) {
    for (; options->name != nullptr; ++options) {
        if (options->val == c)
            return options->name;
    }
    return "?";
}

std::optional<Options> parse(int argc, char** argv) {
    static const option kLong[] = {
        {"mix", required_argument, nullptr, 'x'},     {"rate", required_argument, nullptr, 'r'},
        {"seconds", required_argument, nullptr, 's'}, {"burst", required_argument, nullptr, 'b'},
        {"known", required_argument, nullptr, 'k'},   {"lan", required_argument, nullptr, 'l'},
        {"box-mac", required_argument, nullptr, 'm'}, {"pid", required_argument, nullptr, 'p'},
        {"out", required_argument, nullptr, 'o'},     {"lost", required_argument, nullptr, 'L'},
        {"json", no_argument, nullptr, 'j'},          {"help", no_argument, nullptr, 'h'},
        {"version", no_argument, nullptr, 'V'},       {nullptr, 0, nullptr, 0}};
    Options o;
    std::vector<std::string> latency_only;
    std::vector<std::string> soak_only;
    opterr = 0;
    int c = 0;
    while ((c = ::getopt_long(argc, argv, ":hV", kLong, nullptr)) != -1) {
        long value = 0;
        const bool numeric = c == 'r' || c == 's' || c == 'b' || c == 'p';
        if (numeric && !number(optarg, value))
            return usage_error(
                fmt::format("--{} wants a number, not '{}'", name_of(kLong, c), optarg));
        switch (c) {
            case 'x':
                if (std::string(optarg) == "latency")
                    o.mix = Mix::Latency;
                else if (std::string(optarg) == "soak")
                    o.mix = Mix::Soak;
                else
                    return usage_error(fmt::format("no mix '{}' (latency or soak)", optarg));
                break;
            case 'r':
                if (value <= 0 || value > 1000000)
                    return usage_error("--rate must be from 1 to 1000000");
                o.rate = static_cast<int>(value);
                break;
            case 's':
                if (value < 0)
                    return usage_error("--seconds must not be negative");
                o.seconds = value;
                break;
            case 'b':
                if (value < 0 || value > 10000000)
                    return usage_error("--burst must be from 0 to 10000000");
                o.burst = static_cast<int>(value);
                latency_only.emplace_back("--burst");
                break;
            case 'k':
                o.known_file = optarg;
                break;
            case 'l':
                o.lan = optarg;
                break;
            case 'm':
                o.box_mac = optarg;
                break;
            case 'p':
                o.pid = value;
                break;
            case 'o':
                o.out = optarg;
                soak_only.emplace_back("--out");
                break;
            case 'L':
                o.lost = optarg;
                soak_only.emplace_back("--lost");
                break;
            case 'j':
                o.json = true;
                break;
            case 'h':
                fmt::print("{}", kUsage);
                std::exit(0);
            case 'V':
                fmt::print("devid_latency {}\n", NK_VERSION);
                std::exit(0);
            case ':':
                return usage_error(fmt::format("{} needs a value", argv[optind - 1]));
            default:
                return usage_error(fmt::format("unknown option '{}'", argv[optind - 1]));
        }
    }
    if (optind != argc)
        return usage_error(fmt::format("no operands are taken ('{}')", argv[optind]));
    const bool soak = o.mix == Mix::Soak;
    const std::vector<std::string>& foreign = soak ? latency_only : soak_only;
    if (!foreign.empty())
        return usage_error(
            fmt::format("{} is not for the {} mix", foreign.front(), soak ? "soak" : "latency"));
    // Each mix's defaults are those its runs were made with.
    if (o.rate == 0)
        o.rate = soak ? 200 : 1000;
    if (o.seconds < 0)
        o.seconds = soak ? 0 : 30;
    if (o.seconds == 0 && !soak)
        return usage_error("--seconds must be positive for the latency mix");
    if (o.lan.empty())
        o.lan = soak ? "198.51.100" : "192.0.2";
    if (o.box_mac.empty())
        o.box_mac = soak ? "02:00:00:00:01:01" : "02:fc:00:00:00:01";
    return o;
}

}  // namespace

int main(int argc, char** argv) {
    const std::optional<Options> o = parse(argc, argv);
    if (!o)
        return EX_USAGE;
    nk::log::set_level(nk::log::WARN);
    return o->mix == Mix::Soak ? run_soak(*o) : run_latency(*o);
}
