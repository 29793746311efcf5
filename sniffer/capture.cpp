#include "capture.h"

#include <fcntl.h>

#include "capture_filter.h"

namespace nk::sniffer {

namespace {

OpenFailure failure_of(int status) {
    switch (status) {
        case PCAP_ERROR_PERM_DENIED:
            return OpenFailure::Denied;
        case PCAP_ERROR_NO_SUCH_DEVICE:
        case PCAP_ERROR_IFACE_NOT_UP:
            return OpenFailure::Missing;
        default:
            return OpenFailure::Other;
    }
}

// pcap_geterr's text, or the status's own when libpcap left none.
std::string error_of(pcap_t* pcap, int status) {
    const std::string text = pcap_geterr(pcap);
    return text.empty() ? pcap_statustostr(status) : text;
}

struct FrameHandler {
    const std::function<void(const std::uint8_t*, std::size_t)>* on_frame;
};

void on_packet(u_char* user, const pcap_pkthdr* header, const u_char* bytes) {
    const auto* handler = reinterpret_cast<const FrameHandler*>(user);
    (*handler->on_frame)(bytes, header->caplen);
}

}  // namespace

std::optional<Capture> Capture::open(const std::string& netif, Error& error) {
    char errbuf[PCAP_ERRBUF_SIZE] = {};
    pcap_t* raw = pcap_create(netif.c_str(), errbuf);
    if (raw == nullptr) {
        error = {OpenFailure::Other, errbuf};
        return std::nullopt;
    }
    Capture capture(netif, raw);
    pcap_set_snaplen(raw, kSnapLength);
    pcap_set_promisc(raw, 0);
    pcap_set_immediate_mode(raw, 1);
    pcap_set_buffer_size(raw, kBufferBytes);
    const int status = pcap_activate(raw);
    if (status < 0) {
        error = {failure_of(status), error_of(raw, status)};
        return std::nullopt;
    }
    if (pcap_datalink(raw) != DLT_EN10MB) {
        error = {OpenFailure::Other, "not an Ethernet interface"};
        return std::nullopt;
    }
    bpf_program program{};
    if (pcap_compile(raw, &program, capture_filter().c_str(), 1, PCAP_NETMASK_UNKNOWN) != 0) {
        error = {OpenFailure::Other, "filter: " + std::string(pcap_geterr(raw))};
        return std::nullopt;
    }
    const int set = pcap_setfilter(raw, &program);
    pcap_freecode(&program);
    if (set != 0 || pcap_setdirection(raw, PCAP_D_IN) != 0 ||
        pcap_setnonblock(raw, 1, errbuf) != 0) {
        error = {OpenFailure::Other, pcap_geterr(raw)};
        return std::nullopt;
    }
    const int fd = pcap_get_selectable_fd(raw);
    if (fd < 0 || ::fcntl(fd, F_SETFD, FD_CLOEXEC) != 0) {
        error = {OpenFailure::Other, "no descriptor to wait on"};
        return std::nullopt;
    }
    return capture;
}

int Capture::fd() const {
    return pcap_get_selectable_fd(pcap_.get());
}

int Capture::dispatch(int limit,
                      const std::function<void(const std::uint8_t*, std::size_t)>& on_frame) {
    FrameHandler handler{&on_frame};
    const int n = pcap_dispatch(pcap_.get(), limit, on_packet, reinterpret_cast<u_char*>(&handler));
    return n < 0 ? -1 : n;
}

std::uint64_t Capture::kernel_drops() const {
    pcap_stat stats{};
    if (pcap_stats(pcap_.get(), &stats) != 0)
        return 0;
    return stats.ps_drop;
}

std::string Capture::error_text() const {
    return pcap_geterr(pcap_.get());
}

}  // namespace nk::sniffer
