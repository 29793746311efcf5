// The service scanners (mDNS through avahi-daemon, SSDP/UPnP, NetBIOS) on one event loop that
// the collector's own loop serves, and the lines they make for the daemon.
#pragma once

#include <functional>
#include <optional>
#include <string>

#include "event_loop.h"
#include "lan_interfaces.h"
#include "mdns.h"
#include "netbios_scanner.h"
#include "service_messages.h"
#include "snapshot.h"
#include "upnp_scanner.h"

namespace nk::collector {

struct ScanLimits {
    UpnpLimits upnp;
    NetbiosLimits netbios;
    std::chrono::seconds repeat{3600};  // an unchanged finding is told again after this
};

class Scanners {
public:
    // Writes one line to the daemon; false once it is gone.
    using Write = std::function<bool(const std::string& line)>;

    explicit Scanners(Write write, ScanLimits limits = {});

    // Called with each mDNS service resolved, besides its line.
    void on_mdns(std::function<void(const MdnsService&)> seen) { mdns_seen_ = std::move(seen); }

    // False when none of them can run (logged).
    bool open();
    // The LAN interfaces and the devices of the last snapshot.
    void update(const LanInterfaces& lans, const Snapshot& snapshot);

    int fd() const { return loop_.fd(); }
    std::optional<Clock::time_point> next_timer() const { return loop_.next_timer(); }
    void dispatch() { loop_.dispatch(); }
    // False once a line could not be written.
    bool output_ok() const { return output_ok_; }

private:
    void say(const std::string& key, const std::string& line, const char* what);
    void repeat();

    Write write_;
    std::function<void(const MdnsService&)> mdns_seen_;
    ScanLimits limits_;
    bool output_ok_ = true;
    EventLoop loop_;  // before the scanners, which leave it when they go
    Reports reports_;
    EventLoop::Id repeat_timer_ = 0;
    std::optional<MdnsBrowser> mdns_;
    std::optional<UpnpScanner> upnp_;
    std::optional<NetbiosScanner> netbios_;
};

}  // namespace nk::collector
