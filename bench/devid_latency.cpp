// Latency of the daemon's answers to "request_device_id", against the floor of the same
// requests answered at once by a responder of its own on the same broker.
//   devid_latency [--rate N] [--seconds S] [--burst N] [--known FILE] [--lan A.B.C]
//                 [--box-mac MAC] [--pid PID] [--json]
// FILE lists one known client a line, "MAC IP". The mix: 8 in 10 known clients, 1 in 10 of
// 256 clients the daemon does not know yet (each registered at its first request), 1 in 10
// invalid (the BOX's MAC, an address outside the LAN, a malformed MAC). The bus is
// $NKEX_BROKER; a request counts as unanswered after $NKEX_TIMEOUT_MS.
#include <getopt.h>
#include <sysexits.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <nk/log.h>
#include <nk/nkex.h>

#include "device_id_requests.h"

namespace {

using Clock = std::chrono::steady_clock;

struct Options {
    int rate = 1000;
    int seconds = 30;
    int burst = 0;
    std::string known_file;
    std::string lan = "192.0.2";
    std::string box_mac = "02:fc:00:00:00:01";
    long pid = 0;
    bool json = false;
};

struct Request {
    std::string name;
    std::string payload;
};

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

void on_answer(void* context, const Message* response) {
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

// What a request asks about: a known client, one not known yet, or an invalid request.
enum Kind : int { kKnown, kUnknown, kInvalid };
constexpr const char* kKindNames[] = {"known", "unknown", "invalid"};

Kind kind_of(std::size_t i, bool have_known) {
    const std::size_t slot = i % 10;
    if (slot < 8 && have_known)
        return kKnown;
    return slot == 8 || !have_known ? kUnknown : kInvalid;
}

std::vector<std::string> make_payloads(const Options& o, std::size_t n) {
    const auto known = nk::bench::read_clients(o.known_file);
    std::vector<std::string> out;
    out.reserve(n);
    for (std::size_t i = 0; i < n; ++i) {
        const std::size_t slot = i % 10;
        std::string mac;
        std::string ip;
        if (slot < 8 && !known.empty()) {
            const auto& k = known[(i / 10 * 8 + slot) % known.size()];
            mac = k.first;
            ip = k.second;
        } else if (slot == 8 || known.empty()) {
            const std::size_t u = (i / 10) % 256;
            mac = fmt::format("02:bb:00:00:00:{:02x}", u);
            ip = fmt::format("{}.{}", o.lan, 2 + u % 250);
        } else {
            const std::size_t kind = (i / 10) % 3;
            mac = kind == 0 ? o.box_mac : kind == 1 ? "02:cc:00:00:00:01" : "zz:zz";
            ip = kind == 1 ? "203.0.113.7" : fmt::format("{}.9", o.lan);
        }
        out.push_back(nk::bench::device_id_request(mac, ip));
    }
    return out;
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
                             const std::vector<std::string>& payloads, int rate,
                             const std::string& what, bool have_known) {
    Run run(payloads.size());
    g_run = &run;
    const auto step = std::chrono::nanoseconds(rate > 0 ? 1000000000LL / rate : 0);
    const Clock::time_point start = Clock::now();
    for (std::size_t i = 0; i < payloads.size(); ++i) {
        if (rate > 0)
            std::this_thread::sleep_until(start + step * static_cast<long>(i));
        run.sent[i] = Clock::now();
        if (nkex_send_request(bus, name, payloads[i].data(), payloads[i].size(), on_answer,
                              reinterpret_cast<void*>(static_cast<std::uintptr_t>(i))) != 0) {
            run.state[i] = 2;
            ++run.done;
        }
    }
    // Every request ends: answered, or failed at the bus's time-out.
    while (run.done < payloads.size())
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    std::vector<double> all;
    std::vector<std::vector<double>> by_kind(3);
    std::vector<std::size_t> sent_by_kind(3);
    for (std::size_t i = 0; i < payloads.size(); ++i) {
        const Kind kind = kind_of(i, have_known);
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

std::optional<Options> parse(int argc, char** argv) {
    static const option kLong[] = {
        {"rate", required_argument, nullptr, 'r'},  {"seconds", required_argument, nullptr, 's'},
        {"burst", required_argument, nullptr, 'b'}, {"known", required_argument, nullptr, 'k'},
        {"lan", required_argument, nullptr, 'l'},   {"box-mac", required_argument, nullptr, 'm'},
        {"pid", required_argument, nullptr, 'p'},   {"json", no_argument, nullptr, 'j'},
        {"help", no_argument, nullptr, 'h'},        {nullptr, 0, nullptr, 0}};
    Options o;
    int c = 0;
    while ((c = ::getopt_long(argc, argv, "h", kLong, nullptr)) != -1) {
        switch (c) {
            case 'r':
                o.rate = std::atoi(optarg);
                break;
            case 's':
                o.seconds = std::atoi(optarg);
                break;
            case 'b':
                o.burst = std::atoi(optarg);
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
                o.pid = std::atol(optarg);
                break;
            case 'j':
                o.json = true;
                break;
            case 'h':
                fmt::print(
                    "usage: devid_latency [--rate N] [--seconds S] [--burst N] "
                    "[--known FILE] [--lan A.B.C] [--box-mac MAC] [--pid PID] [--json]\n");
                std::exit(0);
            default:
                return std::nullopt;
        }
    }
    if (o.rate <= 0 || o.seconds <= 0 || o.burst < 0 || optind != argc) {
        fmt::print(stderr, "devid_latency: --rate and --seconds must be positive, no operands\n");
        return std::nullopt;
    }
    return o;
}

}  // namespace

int main(int argc, char** argv) {
    const std::optional<Options> o = parse(argc, argv);
    if (!o)
        return EX_USAGE;
    nk::log::set_level(nk::log::WARN);
    const std::string me = fmt::format("devid-bench-{}", ::getpid());
    const nk::nkex_ptr asker(nkex_init(me.c_str(), nullptr, nullptr, 1));
    nk::nkex_ptr floor;
    floor.reset(nkex_init((me + "-floor").c_str(), answer_at_once, &floor, 1));
    const char* floor_name[] = {"bench_request_device_id"};
    if (!asker || !floor || nkex_subscribe(floor.get(), floor_name, 1) != 0) {
        fmt::print(stderr, "devid_latency: no bus\n");
        return 1;
    }
    const std::vector<std::string> payloads =
        make_payloads(*o, static_cast<std::size_t>(o->rate) * o->seconds);

    const bool have_known = !nk::bench::read_clients(o->known_file).empty();
    report(measure(asker.get(), floor_name[0], payloads, o->rate, "floor", have_known), o->json);
    const long before = rss_kib(o->pid);
    report(measure(asker.get(), "request_device_id", payloads, o->rate, "daemon", have_known),
           o->json);
    const long after = rss_kib(o->pid);
    // Three bursts: the memory a burst takes must be taken again, not added to.
    std::vector<long> burst_rss;
    for (int round = 0; o->burst > 0 && round < 3; ++round) {
        const std::vector<std::string> burst(
            payloads.begin(), payloads.begin() + std::min<std::size_t>(o->burst, payloads.size()));
        report(measure(asker.get(), "request_device_id", burst, 0,
                       fmt::format("burst{}", round + 1), have_known),
               o->json);
        burst_rss.push_back(rss_kib(o->pid));
    }
    if (o->pid > 0) {
        if (o->json)
            fmt::print(R"({{"rss_kib_before": {}, "rss_kib_after": {}, "rss_kib_bursts": [{}]}})"
                       "\n",
                       before, after, fmt::join(burst_rss, ", "));
        else
            fmt::print("daemon RSS: {} KiB before, {} KiB after the run, after each burst {} KiB\n",
                       before, after, fmt::join(burst_rss, ", "));
    }
    return 0;
}
