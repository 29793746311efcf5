#include "collector.h"

#include <signal.h>
#include <sys/epoll.h>
#include <sys/signalfd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <thread>

#include <nk/featureutl.h>
#include <nk/io.h>
#include <nk/log.h>
#include <nk/memory_budget.h>

#include "lan_interfaces.h"
#include "parent_output.h"

namespace nk::collector {

namespace {

// A file still torn after this many quick re-reads is taken as it is.
constexpr int kMaxTornReads = 5;
// The daemon's feature number of additional info (0 is on).
constexpr int kFeatureAdditionalInfo = 0;

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
        // Without it, names and fingerprints are unknown: identifiers still count.
        events_.open();
        sources_.refresh();
        events_.refresh();
        events_.read();
        resolver_.history().load(std::time(nullptr));
    }
    monitor_ = NeighbourMonitor::open();
    return monitor_.has_value();
}

Snapshot Collector::build(bool& torn) {
    torn = false;
    lans_ = read_lan_interfaces();
    const std::vector<Neighbour> neighbours = dump_neighbours().value_or(std::vector<Neighbour>{});
    if (mode_ == Mode::External)
        return neighbours_snapshot(neighbours, lans_);
    const std::vector<Lease> leases = sources_.read(std::time(nullptr), torn);
    Snapshot snapshot =
        leases_snapshot(leases, neighbours, lans_, resolver_, {&events_, &mdns_names_});
    identity_due_ = resolver_.deadline();
    return snapshot;
}

void Collector::probe() {
    for (const ProbeTarget& t : resolver_.take_probes()) {
        NK_LOG(nk::log::DEBUG, "checking whether {} still answers at {}", t.mac, t.ip);
        probe_neighbour(t.iface, t.ip, t.mac);
    }
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
    probe();
    if (scanners_)
        scanners_->update(lans_, snapshot);
    // Without the MAC being checked, its device would seem to have left: the last message
    // stands until it is decided.
    if (identity_due_ && last_) {
        force_pending_ = force_pending_ || force;
        refresh_at_ = std::max(refresh_at_, *identity_due_);
        return true;
    }
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
    resolver_.history().save();
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
    Clock::time_point next = first_change_ ? send_at_ : refresh_at_;
    if (identity_due_)
        next = std::min(next, *identity_due_);
    if (scanners_) {
        if (const std::optional<Clock::time_point> timer = scanners_->next_timer())
            next = std::min(next, *timer);
    }
    if (next <= now)
        return 0;
    const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(next - now).count();
    return static_cast<int>(std::min<long long>(ms + 1, 60000));
}

void Collector::follow_feature(int epoll) {
    const bool on = nk::featureutl::get_feature(kFeatureAdditionalInfo) == 0;
    if (on == scanners_.has_value())
        return;
    if (!on) {
        ::epoll_ctl(epoll, EPOLL_CTL_DEL, scanners_->fd(), nullptr);
        scanners_.reset();
        NK_LOG(nk::log::INFO, "additional info is off: service scanners stopped");
        return;
    }
    scanners_.emplace([this](const std::string& line) { return write_line(out_, line); },
                      scan_limits_);
    // A name announced while a new MAC is held back may tell whose it is.
    scanners_->on_mdns([this](const MdnsService& service) {
        mdns_names_.add(service);
        if (identity_due_)
            changed(Clock::now());
    });
    if (!scanners_->open()) {
        scanners_.reset();
        return;
    }
    watch(epoll, scanners_->fd(), EPOLLIN);
    NK_LOG(nk::log::INFO, "additional info is on: scanning for mDNS, UPnP and NetBIOS services");
    if (last_)
        scanners_->update(lans_, *last_);
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
    if (mode_ == Mode::Internal) {
        watch(epoll.get(), sources_.fd(), EPOLLIN);
        if (events_.fd() >= 0)
            watch(epoll.get(), events_.fd(), EPOLLIN);
    }
    // A pipe's write end reports the reader's end going away; other outputs cannot be watched.
    watch(epoll.get(), out_, 0);
    // Without a feature watch the scanners follow the value read at start.
    const bool features = nk::featureutl::init() == 0;
    // The feature callback refers to this run's epoll set: it goes when the run ends.
    struct FeatureWatch {
        bool on;
        ~FeatureWatch() {
            if (on)
                nk::featureutl::uninit();
        }
    } const feature_watch{features};
    if (features) {
        watch(epoll.get(), nk::featureutl::get_fd(), EPOLLIN);
        nk::featureutl::set_on_feature_change(kFeatureAdditionalInfo,
                                              [&](int) { follow_feature(epoll.get()); });
    }
    follow_feature(epoll.get());

    // The first snapshot goes out at once, even empty: the daemon waits for one.
    if (!send(true))
        return 0;
    for (;;) {
        // A snapshot of a large LAN leaves its parsed leases and message free but resident.
        nk::memory::release_freed();
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
            if (features && fd == nk::featureutl::get_fd())
                nk::featureutl::read_fd();
            if (fd == monitor_->fd() && monitor_->drain())
                changed(now);
            else if (mode_ == Mode::Internal && fd == sources_.fd() && sources_.drain())
                changed(now);
            else if (mode_ == Mode::Internal && fd == events_.fd() && events_.drain() &&
                     events_.read())
                changed(now);
        }
        if (identity_due_ && now >= *identity_due_) {
            identity_due_.reset();
            changed(now);
        }
        if (scanners_) {
            scanners_->dispatch();
            if (!scanners_->output_ok())
                return 0;
        }
        if (first_change_) {
            if (now >= send_at_ && !send(force_pending_))
                return 0;
        } else if (now >= refresh_at_) {
            if (mode_ == Mode::Internal) {
                sources_.refresh();
                events_.refresh();
                events_.read();
            }
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
    resolver_.history().save();
    return 0;
}

}  // namespace nk::collector
