// The lease script's file (collector/nkdevinfo-lease-script), followed as it grows: what each
// client sent with its last DHCP request. The script appends one line per event and empties
// the file when it grows large; the collector reads what was appended since it last looked.
#pragma once

#include <string>
#include <string_view>

#include <nk/io.h>
#include <nk/sockutl.h>

#include "lease_event.h"
#include "recent_map.h"

namespace nk::collector {

// The file the lease script appends to; the script's NK_DHCP_EVENTS must name the same one.
inline constexpr const char* kLeaseEventsKey = "/network/dhcp/lease_events";
inline constexpr const char* kDefaultLeaseEvents = "/tmp/nkdevinfo-dhcp-events";

// What a client last told the server of itself.
struct ClientRequest {
    std::string host;
    DhcpFingerprint fingerprint;
    std::string client_id;
};

class LeaseEventLog {
public:
    static constexpr std::size_t kMaxClients = 1024;
    // At start, or after a long pause, only the newest part of a large file is read.
    static constexpr std::size_t kMaxRead = 1 << 20;

    LeaseEventLog() : requests_(kMaxClients), duid_macs_(kMaxClients) {}

    // False when inotify is not available (logged).
    bool open();
    int fd() const { return inotify_.get(); }
    // The file from the settings again, its directory watched.
    void refresh();
    // Reads the pending inotify events; true when one concerned the file.
    bool drain();
    // Takes in the lines appended since the last read; true when there were any.
    bool read();

    // Whether the DHCP server runs the lease script: its file exists.
    bool active() const { return active_; }
    // What the client of `mac` sent last; null when no event of it was read.
    const ClientRequest* request_of(const sockutl::macaddr& mac) const;
    // A DHCPv6 client's MAC, when the server told it; invalid otherwise.
    sockutl::macaddr mac_of_duid(const std::string& duid) const;

    void take(const LeaseEvent& event);
    // Takes the whole lines of `text`; the number of bytes they fill.
    std::size_t take_lines(std::string_view text);

private:
    nk::io::unique_fd inotify_;
    std::string path_;
    std::string dir_;
    int watch_ = -1;
    bool active_ = false;
    std::uint64_t inode_ = 0;
    std::uint64_t offset_ = 0;
    RecentMap<sockutl::macaddr, ClientRequest> requests_;
    RecentMap<std::string, sockutl::macaddr> duid_macs_;
};

}  // namespace nk::collector
