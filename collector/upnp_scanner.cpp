#include "upnp_scanner.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <nk/log.h>

#include "description_location.h"
#include "printable.h"
#include "ssdp.h"

namespace nk::collector {

namespace {

// Datagrams read per readiness, so that a flood cannot hold the loop.
constexpr int kMaxDatagramsPerTurn = 64;

nk::io::unique_fd udp_socket() {
    return nk::io::unique_fd(::socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
}

sockaddr_in group_address() {
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(ssdp::kPort);
    ::inet_pton(AF_INET, ssdp::kGroup, &to.sin_addr);
    return to;
}

// The NOTIFY listener: the SSDP port, shared with any UPnP stack of the BOX itself.
nk::io::unique_fd notify_socket() {
    nk::io::unique_fd fd = udp_socket();
    const int on = 1;
    if (!fd || ::setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0)
        return {};
    sockaddr_in any{};
    any.sin_family = AF_INET;
    any.sin_port = htons(ssdp::kPort);
    if (::bind(fd.get(), reinterpret_cast<const sockaddr*>(&any), sizeof any) != 0)
        return {};
    return fd;
}

// The searcher: answers come back to its own port; its searches reach only the link.
nk::io::unique_fd search_socket() {
    nk::io::unique_fd fd = udp_socket();
    const int ttl = 2;
    const int loop = 0;
    if (!fd || ::setsockopt(fd.get(), IPPROTO_IP, IP_MULTICAST_TTL, &ttl, sizeof ttl) != 0 ||
        ::setsockopt(fd.get(), IPPROTO_IP, IP_MULTICAST_LOOP, &loop, sizeof loop) != 0) {
        return {};
    }
    return fd;
}

// libcurl opens its sockets without close-on-exec.
curl_socket_t open_socket(void* /*self*/, curlsocktype /*purpose*/, curl_sockaddr* address) {
    return ::socket(address->family, address->socktype | SOCK_CLOEXEC, address->protocol);
}

}  // namespace

UpnpScanner::UpnpScanner(EventLoop& loop, Report report, UpnpLimits limits)
    : loop_(loop),
      report_(std::move(report)),
      limits_(limits),
      fetch_tokens_(limits.fetch_burst, limits.fetch_period) {}

UpnpScanner::~UpnpScanner() {
    for (const EventLoop::Id id : {search_timer_, pump_timer_, curl_timer_})
        loop_.cancel_timer(id);
    loop_.unwatch(notify_watch_);
    loop_.unwatch(search_watch_);
    // Removing a transfer may still call the socket callback, which needs sockets_.
    for (auto& [easy, fetch] : fetches_)
        curl_multi_remove_handle(multi_.get(), easy);
    fetches_.clear();
    multi_.reset();
    for (const auto& [s, id] : sockets_)
        loop_.unwatch(id);
    if (curl_init_)
        curl_global_cleanup();
}

bool UpnpScanner::open() {
    curl_init_ = curl_global_init(CURL_GLOBAL_DEFAULT) == CURLE_OK;
    multi_.reset(curl_init_ ? curl_multi_init() : nullptr);
    search_ = search_socket();
    if (!multi_ || !search_) {
        NK_LOG(nk::log::ERROR, "cannot start the UPnP scanner: {:s}", std::strerror(errno));
        return false;
    }
    curl_multi_setopt(multi_.get(), CURLMOPT_SOCKETFUNCTION, on_socket);
    curl_multi_setopt(multi_.get(), CURLMOPT_SOCKETDATA, this);
    curl_multi_setopt(multi_.get(), CURLMOPT_TIMERFUNCTION, on_timer);
    curl_multi_setopt(multi_.get(), CURLMOPT_TIMERDATA, this);
    search_watch_ = loop_.watch(search_.get(), EPOLLIN,
                                [this](std::uint32_t) { read_datagrams(search_.get()); });
    notify_ = notify_socket();
    if (notify_) {
        notify_watch_ = loop_.watch(notify_.get(), EPOLLIN,
                                    [this](std::uint32_t) { read_datagrams(notify_.get()); });
    } else {
        NK_LOG(nk::log::WARN, "cannot listen on the SSDP port {:d} ({:s}): searching only",
               ssdp::kPort, std::strerror(errno));
    }
    return true;
}

void UpnpScanner::set_interfaces(const LanInterfaces& lans) {
    lans_ = lans;
    bool added = false;
    for (const LanInterface& lan : lans_) {
        const int index = static_cast<int>(::if_nametoindex(lan.name.c_str()));
        if (index == 0 || joined_.count(index) != 0)
            continue;
        if (notify_) {
            ip_mreqn join{};
            ::inet_pton(AF_INET, ssdp::kGroup, &join.imr_multiaddr);
            join.imr_ifindex = index;
            if (::setsockopt(notify_.get(), IPPROTO_IP, IP_ADD_MEMBERSHIP, &join, sizeof join) !=
                    0 &&
                errno != EADDRINUSE) {
                NK_LOG(nk::log::WARN, "cannot join the SSDP group on {:s}: {:s}", lan.name,
                       std::strerror(errno));
            }
        }
        joined_.insert(index);
        added = true;
    }
    if (added)
        search();
}

void UpnpScanner::search() {
    loop_.cancel_timer(search_timer_);
    search_timer_ = loop_.add_timer(Clock::now() + limits_.search_every, [this]() {
        search_timer_ = 0;
        search();
    });
    const std::string message = ssdp::msearch(limits_.mx);
    const sockaddr_in to = group_address();
    for (const int index : joined_) {
        ip_mreqn via{};
        via.imr_ifindex = index;
        if (::setsockopt(search_.get(), IPPROTO_IP, IP_MULTICAST_IF, &via, sizeof via) != 0 ||
            ::sendto(search_.get(), message.data(), message.size(), 0,
                     reinterpret_cast<const sockaddr*>(&to), sizeof to) < 0) {
            NK_LOG(nk::log::DEBUG, "M-SEARCH on interface {:d}: {:s}", index, std::strerror(errno));
        }
    }
}

void UpnpScanner::read_datagrams(int fd) {
    char buffer[ssdp::kMaxDatagram + 1];
    for (int i = 0; i < kMaxDatagramsPerTurn; ++i) {
        sockaddr_in from{};
        socklen_t length = sizeof from;
        const ssize_t n = ::recvfrom(fd, buffer, sizeof buffer, MSG_TRUNC,
                                     reinterpret_cast<sockaddr*>(&from), &length);
        if (n < 0)
            return;
        const sockutl::address sender(reinterpret_cast<const sockaddr*>(&from));
        if (!from_lan(sender))
            continue;
        if (static_cast<std::size_t>(n) > ssdp::kMaxDatagram) {
            skip(fmt::format("SSDP datagram from {} skipped: {:d} bytes, more than {:d}", sender, n,
                             ssdp::kMaxDatagram));
            continue;
        }
        heard(std::string(buffer, static_cast<std::size_t>(n)), sender);
    }
}

// From a device of a LAN subnet, not the BOX itself.
bool UpnpScanner::from_lan(const sockutl::address& sender) const {
    for (const LanInterface& lan : lans_) {
        for (const auto& [own, mask] : lan.nets) {
            if (sender == own)
                return false;
        }
    }
    return interface_of(lans_, sender) != nullptr;
}

void UpnpScanner::heard(const std::string& datagram, const sockutl::address& sender) {
    std::string why;
    const std::optional<ssdp::Message> m = ssdp::read(datagram, why);
    if (!m) {
        skip(fmt::format("SSDP datagram from {} skipped: {:s}", sender, why));
        return;
    }
    if (m->kind == ssdp::Message::Kind::Search || m->nts == "ssdp:byebye")
        return;
    const std::optional<std::string> url = description_url(m->location, sender, why);
    if (!url) {
        skip(fmt::format("SSDP message from {} skipped: {:s}", sender, why));
        return;
    }
    follow(*url, sender.to_string(), m->server);
}

void UpnpScanner::follow(const std::string& url, const std::string& ip, const std::string& server) {
    const Clock::time_point now = Clock::now();
    const auto known = locations_.find(url);
    if (known != locations_.end()) {
        Location& l = known->second;
        if (!server.empty())
            l.server = server;
        if (l.busy || (l.fetched != Clock::time_point{} && now - l.fetched < limits_.refetch))
            return;
    } else {
        const auto of_host = std::count_if(locations_.begin(), locations_.end(),
                                           [&](const auto& l) { return l.second.ip == ip; });
        if (static_cast<std::size_t>(of_host) >= limits_.max_per_host) {
            skip(fmt::format("UPnP description {:s} skipped: {:d} of {:s} followed already",
                             printable(url), of_host, ip));
            return;
        }
        if (locations_.size() >= limits_.max_locations) {
            // The description fetched longest ago makes room.
            auto oldest = locations_.end();
            for (auto it = locations_.begin(); it != locations_.end(); ++it) {
                if (!it->second.busy &&
                    (oldest == locations_.end() || it->second.fetched < oldest->second.fetched))
                    oldest = it;
            }
            if (oldest == locations_.end()) {
                skip(fmt::format("UPnP description {:s} skipped: {:d} fetches waiting",
                                 printable(url), locations_.size()));
                return;
            }
            locations_.erase(oldest);
        }
        locations_[url] = Location{ip, server, {}, false};
    }
    locations_[url].busy = true;
    queue_.push_back(url);
    pump();
}

void UpnpScanner::pump() {
    while (!queue_.empty() && fetches_.size() < limits_.max_parallel) {
        const Clock::time_point now = Clock::now();
        if (!fetch_tokens_.take(now)) {
            if (pump_timer_ == 0) {
                pump_timer_ = loop_.add_timer(fetch_tokens_.next_token(now), [this]() {
                    pump_timer_ = 0;
                    pump();
                });
            }
            return;
        }
        const std::string url = queue_.front();
        queue_.pop_front();
        start_fetch(url);
    }
}

void UpnpScanner::start_fetch(const std::string& url) {
    auto fetch = std::make_unique<Fetch>();
    fetch->easy.reset(curl_easy_init());
    fetch->url = url;
    fetch->max = limits_.max_body;
    CURL* const easy = fetch->easy.get();
    if (easy == nullptr) {
        locations_[url].busy = false;
        return;
    }
    curl_easy_setopt(easy, CURLOPT_URL, url.c_str());
    curl_easy_setopt(easy, CURLOPT_PRIVATE, fetch.get());
    curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, on_body);
    curl_easy_setopt(easy, CURLOPT_WRITEDATA, fetch.get());
    // Plain HTTP from the address that announced it, nowhere else: no redirect, no proxy.
    curl_easy_setopt(easy, CURLOPT_PROTOCOLS_STR, "http");
    curl_easy_setopt(easy, CURLOPT_FOLLOWLOCATION, 0L);
    curl_easy_setopt(easy, CURLOPT_NOPROXY, "*");
    curl_easy_setopt(easy, CURLOPT_TIMEOUT_MS, static_cast<long>(limits_.fetch_timeout.count()));
    curl_easy_setopt(easy, CURLOPT_MAXFILESIZE_LARGE, static_cast<curl_off_t>(limits_.max_body));
    curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(easy, CURLOPT_OPENSOCKETFUNCTION, open_socket);
    curl_easy_setopt(easy, CURLOPT_USERAGENT, "nkdevinfo");
    if (curl_multi_add_handle(multi_.get(), easy) != CURLM_OK) {
        locations_[url].busy = false;
        return;
    }
    fetches_.emplace(easy, std::move(fetch));
}

size_t UpnpScanner::on_body(char* data, size_t size, size_t count, void* fetch) {
    auto* const f = static_cast<Fetch*>(fetch);
    const std::size_t n = size * count;
    if (f->body.size() + n > f->max) {
        f->too_big = true;
        return 0;  // ends the transfer
    }
    f->body.append(data, n);
    return n;
}

void UpnpScanner::finished(CURL* easy, CURLcode result) {
    const auto it = fetches_.find(easy);
    if (it == fetches_.end())
        return;
    const std::unique_ptr<Fetch> fetch = std::move(it->second);
    fetches_.erase(it);
    curl_multi_remove_handle(multi_.get(), easy);
    Location& location = locations_[fetch->url];
    location.busy = false;
    location.fetched = Clock::now();
    long status = 0;
    curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &status);
    std::string why;
    if (fetch->too_big || result == CURLE_FILESIZE_EXCEEDED)
        why = fmt::format("more than {:d} bytes", fetch->max);
    else if (result != CURLE_OK)
        why = curl_easy_strerror(result);
    else if (status != 200)
        why = fmt::format("HTTP status {:d}", status);
    std::optional<upnp::Info> info;
    if (why.empty())
        info = upnp::read_description(fetch->body, why);
    if (!info) {
        skip(fmt::format("UPnP description {:s} skipped: {:s}", printable(fetch->url), why));
        return;
    }
    NK_LOG(nk::log::DEBUG, "UPnP description {:s}: {:d} fields", printable(fetch->url),
           info->size());
    report_(fetch->url, location.ip, *info, location.server);
}

void UpnpScanner::check_done() {
    int left = 0;
    while (CURLMsg* msg = curl_multi_info_read(multi_.get(), &left)) {
        if (msg->msg == CURLMSG_DONE)
            finished(msg->easy_handle, msg->data.result);
    }
    pump();
}

void UpnpScanner::socket_event(curl_socket_t s, std::uint32_t events) {
    int mask = 0;
    if ((events & EPOLLIN) != 0)
        mask |= CURL_CSELECT_IN;
    if ((events & EPOLLOUT) != 0)
        mask |= CURL_CSELECT_OUT;
    if ((events & (EPOLLERR | EPOLLHUP)) != 0)
        mask |= CURL_CSELECT_ERR;
    int running = 0;
    curl_multi_socket_action(multi_.get(), s, mask, &running);
    check_done();
}

int UpnpScanner::on_socket(CURL* /*easy*/, curl_socket_t s, int what, void* self,
                           void* /*socketp*/) {
    auto* const scanner = static_cast<UpnpScanner*>(self);
    const auto known = scanner->sockets_.find(s);
    if (what == CURL_POLL_REMOVE) {
        if (known != scanner->sockets_.end()) {
            scanner->loop_.unwatch(known->second);
            scanner->sockets_.erase(known);
        }
        return 0;
    }
    std::uint32_t events = 0;
    if (what == CURL_POLL_IN || what == CURL_POLL_INOUT)
        events |= EPOLLIN;
    if (what == CURL_POLL_OUT || what == CURL_POLL_INOUT)
        events |= EPOLLOUT;
    if (known != scanner->sockets_.end()) {
        scanner->loop_.modify(known->second, events);
    } else {
        scanner->sockets_[s] = scanner->loop_.watch(
            s, events, [scanner, s](std::uint32_t ready) { scanner->socket_event(s, ready); });
    }
    return 0;
}

int UpnpScanner::on_timer(CURLM* /*multi*/, long timeout_ms, void* self) {
    static_cast<UpnpScanner*>(self)->set_curl_timer(timeout_ms);
    return 0;
}

// libcurl asks for a timeout; the action runs from the loop, never inside this callback.
void UpnpScanner::set_curl_timer(long timeout_ms) {
    loop_.cancel_timer(curl_timer_);
    curl_timer_ = 0;
    if (timeout_ms < 0)
        return;
    curl_timer_ = loop_.add_timer(Clock::now() + std::chrono::milliseconds(timeout_ms), [this]() {
        curl_timer_ = 0;
        int running = 0;
        curl_multi_socket_action(multi_.get(), CURL_SOCKET_TIMEOUT, 0, &running);
        check_done();
    });
}

void UpnpScanner::skip(const std::string& why) {
    int held = 0;
    if (skips_.allow(held))
        NK_LOG(nk::log::INFO, "{:s}{:s}", why, held_note(held));
}

}  // namespace nk::collector
