// The kernel's neighbour table (ARP and IPv6 neighbour discovery), through rtnetlink.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <nk/sockutl.h>

struct mnl_socket;

namespace nk::collector {

struct Neighbour {
    using Clock = std::chrono::steady_clock;

    std::string iface;
    sockutl::address ip;
    sockutl::macaddr mac;     // invalid when the entry has none (failed, incomplete)
    std::uint16_t state = 0;  // NUD_*
    // When the host last answered at this address, and when the entry last changed.
    Clock::time_point confirmed{};
    Clock::time_point updated{};
};

// Entries of a host in use: reachable, stale, delay or probe (not failed, incomplete, static).
bool is_live(const Neighbour& neighbour);

// The whole table, IPv4 and IPv6; empty on failure (logged).
std::optional<std::vector<Neighbour>> dump_neighbours();

// Has the kernel check now that `mac` still answers at `ip` (unicast probes; the entry ends
// reachable or failed within a few seconds). False when the kernel refused (logged).
bool probe_neighbour(const std::string& iface, const sockutl::address& ip,
                     const sockutl::macaddr& mac);

struct MnlSocketCloser {
    void operator()(mnl_socket* socket) const;
};
using MnlSocket = std::unique_ptr<mnl_socket, MnlSocketCloser>;

// Readable whenever the kernel's neighbour table changes.
class NeighbourMonitor {
public:
    // Empty when the socket cannot be made (logged).
    static std::optional<NeighbourMonitor> open();
    int fd() const;
    // Reads every pending notification; true when there was any (or some were lost).
    bool drain();

private:
    explicit NeighbourMonitor(MnlSocket socket) : socket_(std::move(socket)) {}
    MnlSocket socket_;
};

}  // namespace nk::collector
