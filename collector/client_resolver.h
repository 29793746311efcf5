// Which device each leased MAC is reported as: its own, the earlier one a randomised MAC
// replaced (identity_rules.h), or none yet while that is being checked. A decision is
// remembered (ClientHistory) and kept: the daemon registers what it is told.
#pragma once

#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include <nk/sockutl.h>

#include "client_history.h"
#include "identity_rules.h"
#include "lan_interfaces.h"
#include "lease.h"
#include "lease_event_log.h"
#include "mdns_names.h"
#include "neighbours.h"
#include "presence.h"

namespace nk::collector {

class ClientResolver {
public:
    using Clock = std::chrono::steady_clock;

    // A new MAC waits at most this long for its DHCP request and for the check of its device's
    // earlier MACs; then its fingerprint counts as unknown and an unchecked MAC as present.
    static constexpr std::chrono::milliseconds kMaxWait{10000};

    explicit ClientResolver(std::chrono::milliseconds max_wait = kMaxWait) : max_wait_(max_wait) {}

    ClientHistory& history() { return history_; }

    // What the BOX knows at one snapshot.
    struct View {
        const std::vector<Lease>& leases;
        const std::vector<Neighbour>& neighbours;
        const LanInterfaces& lans;
        const LeaseEventLog* events = nullptr;  // null: no lease script is followed
        const MdnsNames* mdns = nullptr;
        Clock::time_point now;
        std::int64_t wall = 0;  // seconds since the epoch
    };

    // Starts a snapshot; `view` must outlive the calls up to end().
    void begin(const View& view);
    void end() {
        view_ = nullptr;
        presence_.reset();
    }
    // The MAC that `mac` is reported under; nullopt while it is being checked, `why` then says
    // what it waits for.
    std::optional<sockutl::macaddr> device_of(const sockutl::macaddr& mac, std::string& why);
    // The addresses to probe now: those not probed within the longest wait.
    std::vector<ProbeTarget> take_probes();
    // When the earliest MAC still being checked is decided whatever comes.
    std::optional<Clock::time_point> deadline() const { return deadline_; }

private:
    // What the leases and the neighbour table show of one MAC.
    struct Shown {
        std::vector<std::string> ids;
        std::string lease_host;
        std::vector<sockutl::address> ips;
    };

    void index(const View& view);
    Sighting sighting(const sockutl::macaddr& mac) const;
    ClientTraits traits(const Sighting& s) const;
    Verdict decide(const sockutl::macaddr& mac, Clock::time_point first);
    void note(const sockutl::macaddr& mac, const Verdict& v) const;

    std::chrono::milliseconds max_wait_;
    ClientHistory history_;
    const View* view_ = nullptr;
    std::optional<PresenceCheck> presence_;
    std::map<sockutl::macaddr, Shown> shown_;
    Clock::time_point now_{};
    // When each MAC still being checked was first leased; one that left starts again.
    std::map<sockutl::macaddr, Clock::time_point> first_seen_;
    std::optional<Clock::time_point> deadline_;
    std::map<ProbeTarget, Clock::time_point> probed_;  // when each address was probed
    std::vector<ProbeTarget> wanted_;
};

}  // namespace nk::collector
