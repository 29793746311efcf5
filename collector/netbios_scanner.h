// NetBIOS: an NBSTAT node status query (UDP 137) to each IPv4 address the leases know, at once
// for a new one and then periodically, within a probe rate; each answer read by the
// bounds-checked codec of nbstat.h.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <string>

#include <nk/io.h>
#include <nk/sockutl.h>

#include "event_loop.h"
#include "nbstat.h"
#include "rate_limit.h"

namespace nk::collector {

struct NetbiosLimits {
    std::chrono::seconds every{300};  // a host is asked again after this
    // A host that never answered (its nmbd may still be starting) is asked again after this,
    // doubled each time, up to `every`.
    std::chrono::seconds first_retry{15};
    int burst = 16;  // probes at once, then one every `spacing`
    std::chrono::milliseconds spacing{250};
    std::size_t max_hosts = 1024;
};

class NetbiosScanner {
public:
    using Report = std::function<void(const std::string& ip, const nbstat::Table& table)>;

    NetbiosScanner(EventLoop& loop, Report report, NetbiosLimits limits = {});
    ~NetbiosScanner();
    NetbiosScanner(const NetbiosScanner&) = delete;
    NetbiosScanner& operator=(const NetbiosScanner&) = delete;

    bool open();
    // The hosts to ask; new ones are asked soon, gone ones forgotten.
    void set_hosts(const std::set<sockutl::address>& hosts);

private:
    struct Host {
        Clock::time_point next{};
        std::uint16_t transaction = 0;
        bool asked = false;
        bool answered = false;  // ever
        int unanswered = 0;     // questions in a row without an answer
    };

    std::chrono::seconds next_question(const Host& host) const;
    void probe();
    void schedule();
    void read_answers();
    void skip(const std::string& why);

    EventLoop& loop_;
    Report report_;
    NetbiosLimits limits_;
    nk::io::unique_fd socket_;
    EventLoop::Id watch_ = 0;
    EventLoop::Id timer_ = 0;
    std::map<sockutl::address, Host> hosts_;
    std::uint16_t next_transaction_;
    TokenBucket tokens_;
    LogAllowance skips_;
};

}  // namespace nk::collector
