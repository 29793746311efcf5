// A live capture on one interface through libpcap, with the sifter's kernel filter installed:
// non-blocking, immediate delivery, inbound frames only.
#pragma once

#include <pcap/pcap.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace nk::sniffer {

enum class OpenFailure {
    Denied,   // no CAP_NET_RAW (or the like): no interface will do better
    Missing,  // the interface does not exist or is down, yet
    Other,
};

class Capture {
public:
    // Frames longer than this are cut; a DHCP message or a request's first segment fits. The
    // ring gives a frame a slot of this plus libpcap's header (about 80 bytes) rounded up to
    // pages: 4096 took two pages a slot, half of them never written.
    static constexpr int kSnapLength = 4096 - 128;
    // The kernel's ring for this capture, resident as long as it is open: 64 slots, for the
    // few frames the filter lets through, which are read as they come.
    static constexpr int kBufferBytes = 64 * 4096;

    struct Error {
        OpenFailure kind;
        std::string text;
    };

    // Opens, filters and activates the capture; on failure `error` says why.
    static std::optional<Capture> open(const std::string& netif, Error& error);

    const std::string& netif() const { return netif_; }
    // Readable when frames wait.
    int fd() const;
    // Hands the waiting frames (up to `limit`) to `on_frame` with their captured bytes. The
    // number handed, or -1 when the capture broke (the interface went away).
    int dispatch(int limit, const std::function<void(const std::uint8_t*, std::size_t)>& on_frame);
    // Frames the kernel dropped since the capture opened (its ring was full).
    std::uint64_t kernel_drops() const;
    std::string error_text() const;

private:
    struct Closer {
        void operator()(pcap_t* pcap) const { pcap_close(pcap); }
    };
    Capture(std::string netif, pcap_t* pcap) : netif_(std::move(netif)), pcap_(pcap) {}

    std::string netif_;
    std::unique_ptr<pcap_t, Closer> pcap_;
};

}  // namespace nk::sniffer
