#include "sifter.h"

#include <signal.h>
#include <sys/epoll.h>
#include <sys/signalfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>

#include <fmt/format.h>
#include <nk/constants.h>
#include <nk/io.h>
#include <nk/log.h>
#include <nk/memory_budget.h>
#include <nk/setmgmt.h>

#include "interface_roles.h"
#include "sighting.h"

namespace nk::sniffer {

namespace {

using Clock = std::chrono::steady_clock;

// Interfaces that could not be opened are tried again, and the roles read again, this often.
constexpr std::chrono::seconds kRetryPeriod(10);
constexpr std::chrono::minutes kReportPeriod(1);
// Frames handled per readiness of one capture, so that a busy one cannot starve the others.
constexpr int kDispatchLimit = 64;

nk::io::unique_fd stop_signals() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    return nk::io::unique_fd(::signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK));
}

nk::io::unique_fd periodic_timer() {
    nk::io::unique_fd timer(::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK));
    const itimerspec every{{kRetryPeriod.count(), 0}, {kRetryPeriod.count(), 0}};
    if (timer && ::timerfd_settime(timer.get(), 0, &every, nullptr) != 0)
        timer.reset();
    return timer;
}

void drain(int fd) {
    char buffer[256];
    while (::read(fd, buffer, sizeof buffer) > 0) {
    }
}

std::string denied_text(const std::string& netif, const std::string& why) {
    return fmt::format("cannot capture on {:s}: {:s} (needs CAP_NET_RAW)", netif, why);
}

}  // namespace

Sifter::Sifter(Config config) : config_(std::move(config)) {}

int Sifter::run() {
    const nk::io::unique_fd epoll(::epoll_create1(EPOLL_CLOEXEC));
    const nk::io::unique_fd signals = stop_signals();
    const nk::io::unique_fd timer = periodic_timer();
    if (!epoll || !signals || !timer) {
        NK_LOG(nk::log::ERROR, "cannot set up the loop: {:s}", std::strerror(errno));
        return 1;
    }
    nk::io::epoll_set_fd_ro(epoll.get(), signals.get());
    nk::io::epoll_set_fd_ro(epoll.get(), timer.get());
    // Roles from the store are followed as they change; a fixed list is not.
    std::optional<nk::setMgmt::MonitoredKey> roles;
    if (config_.interfaces.empty()) {
        roles.emplace(std::string(nk::kNetworkInterfacesKey));
        if (roles->fd() >= 0)
            nk::io::epoll_set_fd_ro(epoll.get(), roles->fd());
    }
    if (!follow_interfaces(epoll.get(), true))
        return kExitNoPermission;
    publisher_.start();
    next_report_ = Clock::now() + kReportPeriod;
    NK_LOG(nk::log::INFO, "sifting on {:d} interface(s)", captures_.size());

    epoll_event ready[16];
    while (true) {
        const int n = ::epoll_wait(epoll.get(), ready, 16, -1);
        if (n < 0 && errno != EINTR) {
            NK_LOG(nk::log::ERROR, "epoll_wait failed: {:s}", std::strerror(errno));
            return 1;
        }
        for (int i = 0; i < n; ++i) {
            const int fd = ready[i].data.fd;
            if (fd == signals.get()) {
                NK_LOG(nk::log::INFO, "stopping");
                log_minute();
                return 0;
            }
            if (fd == timer.get()) {
                drain(fd);
                follow_interfaces(epoll.get(), false);
                // Opening captures (compiling their filters) leaves freed heap behind.
                nk::memory::release_freed();
                if (Clock::now() >= next_report_) {
                    log_minute();
                    next_report_ = Clock::now() + kReportPeriod;
                }
            } else if (roles && fd == roles->fd()) {
                if (roles->consume())
                    follow_interfaces(epoll.get(), false);
            } else if (const auto found = by_fd_.find(fd); found != by_fd_.end()) {
                read_frames(epoll.get(), std::string(found->second));
            }
        }
    }
}

bool Sifter::follow_interfaces(int epoll, bool starting) {
    const std::vector<std::string> wanted =
        config_.interfaces.empty() ? lan_interfaces() : config_.interfaces;
    if (wanted.empty() && !said_no_interface_) {
        NK_LOG(nk::log::WARN, "no LAN or guest interface in {:s}; waiting for one",
               nk::kNetworkInterfacesKey);
    }
    said_no_interface_ = wanted.empty();
    for (auto it = captures_.begin(); it != captures_.end();) {
        const std::string netif = (it++)->first;
        if (std::find(wanted.begin(), wanted.end(), netif) == wanted.end()) {
            NK_LOG(nk::log::INFO, "no longer capturing on {:s}", netif);
            close_capture(epoll, netif);
        }
    }
    for (const std::string& netif : wanted) {
        if (captures_.count(netif) != 0)
            continue;
        Capture::Error error;
        std::optional<Capture> capture = Capture::open(netif, error);
        if (!capture) {
            if (error.kind == OpenFailure::Denied) {
                if (starting) {
                    fmt::print(stderr, "nksifter: {:s}\n", denied_text(netif, error.text));
                    return false;
                }
                NK_LOG(nk::log::ERROR, "{:s}", denied_text(netif, error.text));
            } else if (said_missing_.insert(netif).second) {
                NK_LOG(nk::log::WARN, "cannot capture on {:s} yet: {:s}; trying every {:d} s",
                       netif, error.text, kRetryPeriod.count());
            }
            continue;
        }
        said_missing_.erase(netif);
        const int fd = capture->fd();
        nk::io::epoll_set_fd_ro(epoll, fd);
        by_fd_[fd] = netif;
        captures_.emplace(netif, Open{std::move(*capture), 0});
        NK_LOG(nk::log::INFO, "capturing on {:s}", netif);
    }
    return true;
}

void Sifter::close_capture(int epoll, const std::string& netif) {
    const auto found = captures_.find(netif);
    if (found == captures_.end())
        return;
    const int fd = found->second.capture.fd();
    nk::io::epoll_del_fd(epoll, fd);
    by_fd_.erase(fd);
    captures_.erase(found);
}

void Sifter::read_frames(int epoll, const std::string& netif) {
    Capture& capture = captures_.at(netif).capture;
    const int n = capture.dispatch(kDispatchLimit, [&](const std::uint8_t* data, std::size_t size) {
        on_frame(netif, data, size);
    });
    if (n < 0) {
        NK_LOG(nk::log::WARN, "capture on {:s} stopped: {:s}; trying again every {:d} s", netif,
               capture.error_text(), kRetryPeriod.count());
        said_missing_.insert(netif);
        close_capture(epoll, netif);
    }
}

void Sifter::on_frame(const std::string& netif, const std::uint8_t* data, std::size_t length) {
    ++counters_.frames;
    std::optional<Sighting> sighting;
    const Skip skip = sight(data, length, netif, sighting);
    if (skip != Skip::None) {
        counters_.skip(skip);
        NK_LOG(nk::log::TRACE, "frame of {:d} bytes on {:s} skipped: {:s}", length, netif,
               to_string(skip));
        return;
    }
    if (sighting->kind == Sighting::Kind::UserAgent) {
        if (repeats_.is_repeat(sighting->mac, sighting->user_agent, Clock::now())) {
            ++counters_.repeats;
            return;
        }
        ++counters_.user_agents;
    } else {
        ++counters_.dhcp;
    }
    publisher_.offer(std::move(sighting->event));
}

void Sifter::log_minute() {
    const std::uint64_t dropped = publisher_.dropped();
    if (dropped > reported_dropped_) {
        NK_LOG(nk::log::WARN,
               "{:d} events dropped since the last report: the bus is slow or away (queue of {:d} "
               "full)",
               dropped - reported_dropped_, publisher_.capacity());
        reported_dropped_ = dropped;
    }
    for (auto& [netif, open] : captures_) {
        const std::uint64_t drops = open.capture.kernel_drops();
        if (drops > open.reported_drops) {
            NK_LOG(nk::log::WARN, "{:d} frames dropped by the kernel on {:s} since the last report",
                   drops - open.reported_drops, netif);
            open.reported_drops = drops;
        }
    }
    NK_LOG(nk::log::DEBUG,
           "frames {:d}: dhcp {:d}, user agents {:d}, repeats {:d}, truncated {:d}, fragments "
           "{:d}, malformed {:d}, other {:d}; events sent {:d}, dropped {:d}",
           counters_.frames, counters_.dhcp, counters_.user_agents, counters_.repeats,
           counters_.skipped_for(Skip::Truncated), counters_.skipped_for(Skip::Fragment),
           counters_.skipped_for(Skip::Malformed),
           counters_.skipped_for(Skip::NotIp) + counters_.skipped_for(Skip::NotUdpOrTcp) +
               counters_.skipped_for(Skip::Uninteresting),
           publisher_.sent(), dropped);
}

}  // namespace nk::sniffer
