#include "collector.h"

#include <signal.h>
#include <sys/epoll.h>
#include <sys/signalfd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <thread>

#include <nk/io.h>
#include <nk/log.h>

#include "lan_interfaces.h"
#include "parent_output.h"

namespace nk::collector {

namespace {

// A file still torn after this many quick re-reads is taken as it is.
constexpr int kMaxTornReads = 5;

nk::io::unique_fd stop_signals() {
    sigset_t set;
    ::sigemptyset(&set);
    for (const int sig : {SIGTERM, SIGINT, SIGHUP})
        ::sigaddset(&set, sig);
    if (::sigprocmask(SIG_BLOCK, &set, nullptr) != 0)
        return nk::io::unique_fd();
    return nk::io::unique_fd(::signalfd(-1, &set, SFD_NONBLOCK | SFD_CLOEXEC));
}

void watch(int epoll, int fd, std::uint32_t events) {
    epoll_event ev{};
    ev.events = events;
    ev.data.fd = fd;
    ::epoll_ctl(epoll, EPOLL_CTL_ADD, fd, &ev);
}

}  // namespace

bool Collector::start() {
    ::signal(SIGPIPE, SIG_IGN);
    if (mode_ == Mode::Internal) {
        if (!sources_.open())
            return false;
        sources_.refresh();
        history_.load();
    }
    monitor_ = NeighbourMonitor::open();
    return monitor_.has_value();
}

Snapshot Collector::build(bool& torn) {
    torn = false;
    const LanInterfaces lans = read_lan_interfaces();
    const std::vector<Neighbour> neighbours = dump_neighbours().value_or(std::vector<Neighbour>{});
    if (mode_ == Mode::External)
        return neighbours_snapshot(neighbours, lans);
    const std::vector<Lease> leases = sources_.read(std::time(nullptr), torn);
    return leases_snapshot(leases, neighbours, lans, history_);
}

void Collector::log_skipped(const Snapshot& snapshot) {
    if (snapshot.skipped == last_skipped_)
        return;
    last_skipped_ = snapshot.skipped;
    for (const std::string& why : snapshot.skipped)
        NK_LOG(nk::log::INFO, "lease left out: {:s}", why);
}

bool Collector::send(bool force) {
    const Clock::time_point now = Clock::now();
    bool torn = false;
    Snapshot snapshot = build(torn);
    if (torn && torn_reads_ < kMaxTornReads) {
        // Read again once the server has finished writing.
        ++torn_reads_;
        force_pending_ = force_pending_ || force;
        if (!first_change_)
            first_change_ = now;
        send_at_ = now + timing_.settle;
        return true;
    }
    torn_reads_ = 0;
    first_change_.reset();
    force = force || force_pending_;
    force_pending_ = false;
    log_skipped(snapshot);
    if (!force && last_ && *last_ == snapshot)
        return true;
    const std::string message = leases_message(snapshot);
    if (message.empty()) {
        NK_LOG(nk::log::ERROR, "cannot build the leases message");
        return true;
    }
    if (!write_line(out_, message))
        return false;
    NK_LOG(nk::log::DEBUG, "sent {:d} leased MACs", snapshot.macs.size());
    history_.save();
    last_ = std::move(snapshot);
    last_sent_ = now;
    refresh_at_ = now + timing_.refresh;
    return true;
}

// A burst of changes is read once it settles, but never held back for long, and snapshots
// keep their least gap.
void Collector::changed(Clock::time_point now) {
    if (!first_change_)
        first_change_ = now;
    const Clock::time_point settled =
        std::min(now + timing_.settle, *first_change_ + timing_.min_gap);
    send_at_ = std::max(settled, last_sent_ + timing_.min_gap);
}

int Collector::wait_ms(Clock::time_point now) const {
    const Clock::time_point next = first_change_ ? send_at_ : refresh_at_;
    if (next <= now)
        return 0;
    const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(next - now).count();
    return static_cast<int>(std::min<long long>(ms + 1, 60000));
}

int Collector::run() {
    const nk::io::unique_fd signals = stop_signals();
    const nk::io::unique_fd epoll(::epoll_create1(EPOLL_CLOEXEC));
    if (!signals || !epoll || !start()) {
        NK_LOG(nk::log::ERROR, "cannot start: {:s}", std::strerror(errno));
        return 1;
    }
    watch(epoll.get(), signals.get(), EPOLLIN);
    watch(epoll.get(), monitor_->fd(), EPOLLIN);
    if (mode_ == Mode::Internal)
        watch(epoll.get(), sources_.fd(), EPOLLIN);
    // A pipe's write end reports the reader's end going away; other outputs cannot be watched.
    watch(epoll.get(), out_, 0);

    // The first snapshot goes out at once, even empty: the daemon waits for one.
    if (!send(true))
        return 0;
    for (;;) {
        epoll_event events[8];
        const int n = ::epoll_wait(epoll.get(), events, 8, wait_ms(Clock::now()));
        if (n < 0 && errno != EINTR) {
            NK_LOG(nk::log::ERROR, "epoll_wait: {:s}", std::strerror(errno));
            return 1;
        }
        const Clock::time_point now = Clock::now();
        for (int i = 0; i < std::max(n, 0); ++i) {
            const int fd = events[i].data.fd;
            if (fd == signals.get() || fd == out_)
                return 0;
            if (fd == monitor_->fd() && monitor_->drain())
                changed(now);
            else if (mode_ == Mode::Internal && fd == sources_.fd() && sources_.drain())
                changed(now);
        }
        if (first_change_) {
            if (now >= send_at_ && !send(force_pending_))
                return 0;
        } else if (now >= refresh_at_) {
            if (mode_ == Mode::Internal)
                sources_.refresh();
            if (!send(true))
                return 0;
        }
    }
}

int Collector::run_once() {
    if (!start())
        return 1;
    bool torn = false;
    Snapshot snapshot = build(torn);
    for (int i = 0; torn && i < kMaxTornReads; ++i) {
        std::this_thread::sleep_for(timing_.settle);
        snapshot = build(torn);
    }
    log_skipped(snapshot);
    const std::string message = leases_message(snapshot);
    if (message.empty() || !write_line(out_, message))
        return 1;
    history_.save();
    return 0;
}

}  // namespace nk::collector
