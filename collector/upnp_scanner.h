// SSDP/UPnP: M-SEARCH ssdp:all on each LAN interface at start and periodically, NOTIFY heard on
// 239.255.255.250:1900, and each new description LOCATION fetched with libcurl's multi
// interface on the scanners' loop (bounded in size, time, number per host and rate), read with
// expat and reported once per device description.
#pragma once

#include <curl/curl.h>

#include <chrono>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>

#include <nk/io.h>
#include <nk/sockutl.h>

#include "event_loop.h"
#include "lan_interfaces.h"
#include "rate_limit.h"
#include "upnp_description.h"

namespace nk::collector {

struct UpnpLimits {
    int mx = 2;                                     // seconds devices may wait to answer
    std::chrono::seconds search_every{300};         // M-SEARCH period
    std::size_t max_body = 64 * 1024;               // bytes of a description
    std::chrono::milliseconds fetch_timeout{5000};  // a whole fetch
    std::size_t max_parallel = 4;                   // fetches at once
    std::size_t max_per_host = 8;                   // description URLs followed per address
    std::size_t max_locations = 256;                // description URLs followed in all
    int fetch_burst = 10;                           // then one fetch every fetch_period
    std::chrono::milliseconds fetch_period{2000};
    std::chrono::seconds refetch{3600};  // a known description is fetched again after this
};

class UpnpScanner {
public:
    // `key` names the description (its URL), `server` is the SERVER header heard with it.
    using Report = std::function<void(const std::string& key, const std::string& ip,
                                      const upnp::Info& info, const std::string& server)>;

    UpnpScanner(EventLoop& loop, Report report, UpnpLimits limits = {});
    ~UpnpScanner();
    UpnpScanner(const UpnpScanner&) = delete;
    UpnpScanner& operator=(const UpnpScanner&) = delete;

    // Sockets and the transfer engine; false when nothing can be done (logged).
    bool open();
    // Joins the group and searches on interfaces new to it.
    void set_interfaces(const LanInterfaces& lans);

private:
    struct EasyFree {
        void operator()(CURL* easy) const { curl_easy_cleanup(easy); }
    };
    struct MultiFree {
        void operator()(CURLM* multi) const { curl_multi_cleanup(multi); }
    };
    struct Location {
        std::string ip;
        std::string server;
        Clock::time_point fetched{};  // epoch: never
        bool busy = false;            // queued or being fetched
    };
    struct Fetch {
        std::unique_ptr<CURL, EasyFree> easy;
        std::string url;
        std::string body;
        std::size_t max = 0;
        bool too_big = false;
    };

    void search();
    void read_datagrams(int fd);
    void heard(const std::string& datagram, const sockutl::address& sender);
    bool from_lan(const sockutl::address& sender) const;
    void follow(const std::string& url, const std::string& ip, const std::string& server);
    void pump();
    void start_fetch(const std::string& url);
    void finished(CURL* easy, CURLcode result);
    void check_done();
    void socket_event(curl_socket_t s, std::uint32_t events);
    void set_curl_timer(long timeout_ms);
    void skip(const std::string& why);

    static size_t on_body(char* data, size_t size, size_t count, void* fetch);
    static int on_socket(CURL* easy, curl_socket_t s, int what, void* self, void* socketp);
    static int on_timer(CURLM* multi, long timeout_ms, void* self);

    EventLoop& loop_;
    Report report_;
    UpnpLimits limits_;
    LanInterfaces lans_;
    std::set<int> joined_;  // interface indexes
    nk::io::unique_fd notify_;
    nk::io::unique_fd search_;
    EventLoop::Id notify_watch_ = 0;
    EventLoop::Id search_watch_ = 0;
    EventLoop::Id search_timer_ = 0;
    EventLoop::Id pump_timer_ = 0;
    EventLoop::Id curl_timer_ = 0;
    bool curl_init_ = false;
    std::unique_ptr<CURLM, MultiFree> multi_;
    std::map<curl_socket_t, EventLoop::Id> sockets_;
    std::map<CURL*, std::unique_ptr<Fetch>> fetches_;
    std::map<std::string, Location> locations_;  // by URL
    std::deque<std::string> queue_;
    TokenBucket fetch_tokens_;
    LogAllowance skips_;
};

}  // namespace nk::collector
