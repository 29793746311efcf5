#include "netbios_scanner.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

#include <nk/log.h>

namespace nk::collector {

namespace {

constexpr int kMaxAnswersPerTurn = 64;
// Real node status answers are a few hundred bytes; a datagram is never longer than this.
constexpr std::size_t kMaxAnswer = 65535;

}  // namespace

NetbiosScanner::NetbiosScanner(EventLoop& loop, Report report, NetbiosLimits limits)
    : loop_(loop),
      report_(std::move(report)),
      limits_(limits),
      next_transaction_(static_cast<std::uint16_t>(::getpid())),
      tokens_(limits.burst, limits.spacing) {}

NetbiosScanner::~NetbiosScanner() {
    loop_.cancel_timer(timer_);
    loop_.unwatch(watch_);
}

bool NetbiosScanner::open() {
    socket_.reset(::socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!socket_) {
        NK_LOG(nk::log::ERROR, "cannot start the NetBIOS scanner: {:s}", std::strerror(errno));
        return false;
    }
    watch_ = loop_.watch(socket_.get(), EPOLLIN, [this](std::uint32_t) { read_answers(); });
    return true;
}

void NetbiosScanner::set_hosts(const std::set<sockutl::address>& hosts) {
    for (auto it = hosts_.begin(); it != hosts_.end();) {
        if (hosts.count(it->first) == 0)
            it = hosts_.erase(it);
        else
            ++it;
    }
    for (const sockutl::address& ip : hosts) {
        if (!ip.is_v4() || hosts_.count(ip) != 0)
            continue;
        if (hosts_.size() >= limits_.max_hosts) {
            skip(fmt::format("NetBIOS host {} skipped: {:d} hosts asked already", ip,
                             hosts_.size()));
            break;
        }
        hosts_.emplace(ip, Host{});
    }
    schedule();
}

void NetbiosScanner::schedule() {
    loop_.cancel_timer(timer_);
    timer_ = 0;
    if (hosts_.empty())
        return;
    Clock::time_point when = Clock::time_point::max();
    for (const auto& [ip, host] : hosts_)
        when = std::min(when, host.next);
    const Clock::time_point now = Clock::now();
    when = std::max(when, tokens_.next_token(now));
    timer_ = loop_.add_timer(when, [this]() {
        timer_ = 0;
        probe();
    });
}

std::chrono::seconds NetbiosScanner::next_question(const Host& host) const {
    if (host.answered)
        return limits_.every;
    const int doublings = std::min(host.unanswered, 8);
    return std::min(limits_.every, limits_.first_retry * (1 << doublings));
}

void NetbiosScanner::probe() {
    const Clock::time_point now = Clock::now();
    for (auto& [ip, host] : hosts_) {
        if (host.next > now)
            continue;
        if (!tokens_.take(now))
            break;
        host.transaction = next_transaction_++;
        if (host.asked)
            ++host.unanswered;
        host.asked = true;
        host.next = now + next_question(host);
        const std::vector<std::uint8_t> query = nbstat::query(host.transaction);
        sockaddr_in to{};
        to.sin_family = AF_INET;
        to.sin_port = htons(nbstat::kPort);
        ::inet_pton(AF_INET, ip.to_string().c_str(), &to.sin_addr);
        if (::sendto(socket_.get(), query.data(), query.size(), 0,
                     reinterpret_cast<const sockaddr*>(&to), sizeof to) < 0) {
            NK_LOG(nk::log::DEBUG, "NBSTAT to {}: {:s}", ip, std::strerror(errno));
        }
    }
    schedule();
}

void NetbiosScanner::read_answers() {
    std::vector<std::uint8_t> buffer(kMaxAnswer);
    for (int i = 0; i < kMaxAnswersPerTurn; ++i) {
        sockaddr_in from{};
        socklen_t length = sizeof from;
        const ssize_t n = ::recvfrom(socket_.get(), buffer.data(), buffer.size(), 0,
                                     reinterpret_cast<sockaddr*>(&from), &length);
        if (n < 0)
            return;
        const sockutl::address sender(reinterpret_cast<const sockaddr*>(&from));
        const auto host = hosts_.find(sender);
        // Only the hosts asked, from their NetBIOS port, are heard.
        if (host == hosts_.end() || !host->second.asked || ntohs(from.sin_port) != nbstat::kPort)
            continue;
        std::string why;
        const std::optional<nbstat::NodeStatus> status =
            nbstat::parse(buffer.data(), static_cast<std::size_t>(n), why);
        if (status && status->transaction_id != host->second.transaction)
            why = "an answer to another question";
        if (!status || !why.empty()) {
            skip(fmt::format("NetBIOS answer from {} skipped: {:s}", sender, why));
            continue;
        }
        host->second.asked = false;
        host->second.answered = true;
        host->second.unanswered = 0;
        const std::optional<nbstat::Table> table = nbstat::table_of(*status);
        if (!table) {
            NK_LOG(nk::log::DEBUG, "NetBIOS host {} has no usable name", sender);
            continue;
        }
        report_(sender.to_string(), *table);
    }
}

void NetbiosScanner::skip(const std::string& why) {
    int held = 0;
    if (skips_.allow(held))
        NK_LOG(nk::log::INFO, "{:s}{:s}", why, held_note(held));
}

}  // namespace nk::collector
