// The collector's loop: a "leases" snapshot at start, on every change of the leases or the
// neighbour table (at most one a second) and at least every minute; and, while the
// additional-info feature is on, the service scanners' "avahi", "upnp" and "netbios" lines.
#pragma once

#include <chrono>
#include <optional>

#include "client_resolver.h"
#include "lease_event_log.h"
#include "lease_sources.h"
#include "mdns_names.h"
#include "neighbours.h"
#include "scanners.h"
#include "snapshot.h"

namespace nk::collector {

enum class Mode {
    Internal,  // the BOX's own DHCP server: its lease files
    External,  // another DHCP server on the LAN: the neighbour table
};

struct Timing {
    std::chrono::milliseconds settle{200};     // quiet time after a change before reading
    std::chrono::milliseconds min_gap{1000};   // least time between two snapshots
    std::chrono::milliseconds refresh{60000};  // most time between two snapshots
    // most time a new randomised MAC is held back while its device is checked
    std::chrono::milliseconds identity_wait{ClientResolver::kMaxWait};
};

class Collector {
public:
    Collector(Mode mode, int out_fd, Timing timing = {}, ScanLimits scan = {})
        : mode_(mode),
          out_(out_fd),
          timing_(timing),
          resolver_(timing.identity_wait),
          scan_limits_(scan) {}

    // Until SIGTERM, SIGINT or SIGHUP, or until the output is closed: 0. 1 when it cannot
    // start.
    int run();
    // One snapshot written, then 0; 1 when it could not be made or written.
    int run_once();

private:
    bool start();
    Snapshot build(bool& torn);
    // Writes the snapshot when `force` or when it changed; false once the output is gone.
    bool send(bool force);
    void changed(Clock::time_point now);
    int wait_ms(Clock::time_point now) const;
    void log_skipped(const Snapshot& snapshot);
    // Has the kernel check the earlier MACs the resolver asked about; a check's end is a
    // neighbour table change.
    void probe();
    // Starts or stops the service scanners as the additional-info feature says.
    void follow_feature(int epoll);

    Mode mode_;
    int out_;
    Timing timing_;
    LeaseSources sources_;
    std::optional<NeighbourMonitor> monitor_;
    ClientResolver resolver_;
    LeaseEventLog events_;
    MdnsNames mdns_names_;
    ScanLimits scan_limits_;
    std::optional<Scanners> scanners_;
    LanInterfaces lans_;

    std::optional<Snapshot> last_;
    std::vector<std::string> last_skipped_;
    Clock::time_point last_sent_{};
    Clock::time_point refresh_at_{};
    std::optional<Clock::time_point> first_change_;  // set while a change waits
    std::optional<Clock::time_point> identity_due_;  // when a held-back MAC is decided anyway
    Clock::time_point send_at_{};
    int torn_reads_ = 0;
    bool force_pending_ = false;  // a torn read held back a snapshot that must go out
};

}  // namespace nk::collector
