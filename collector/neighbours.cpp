#include "neighbours.h"

#include <libmnl/libmnl.h>
#include <linux/neighbour.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/socket.h>

#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <ctime>

#include <nk/log.h>

namespace nk::collector {

namespace {

constexpr std::uint16_t kLiveStates = NUD_REACHABLE | NUD_STALE | NUD_DELAY | NUD_PROBE;

MnlSocket open_socket(int flags, unsigned int groups) {
    MnlSocket socket(mnl_socket_open2(NETLINK_ROUTE, SOCK_CLOEXEC | flags));
    if (!socket || mnl_socket_bind(socket.get(), groups, MNL_SOCKET_AUTOPID) < 0) {
        NK_LOG(nk::log::ERROR, "rtnetlink socket: {:s}", std::strerror(errno));
        return nullptr;
    }
    return socket;
}

int attribute(const nlattr* attr, void* data) {
    const int type = mnl_attr_get_type(attr);
    if (mnl_attr_type_valid(attr, NDA_MAX) < 0)
        return MNL_CB_OK;
    static_cast<const nlattr**>(data)[type] = attr;
    return MNL_CB_OK;
}

sockutl::address address_of(const nlattr* attr, int family) {
    const std::size_t size = mnl_attr_get_payload_len(attr);
    if (family == AF_INET && size == sizeof(in_addr)) {
        in_addr v4{};
        std::memcpy(&v4, mnl_attr_get_payload(attr), sizeof v4);
        return sockutl::address(v4);
    }
    if (family == AF_INET6 && size == sizeof(in6_addr)) {
        in6_addr v6{};
        std::memcpy(&v6, mnl_attr_get_payload(attr), sizeof v6);
        return sockutl::address(v6);
    }
    return {};
}

// The kernel gives ages in clock ticks.
Neighbour::Clock::time_point ago(Neighbour::Clock::time_point now, std::uint32_t ticks) {
    static const long per_second = ::sysconf(_SC_CLK_TCK);
    return now - std::chrono::milliseconds(std::int64_t{ticks} * 1000 / std::max(per_second, 1L));
}

void read_times(const nlattr* attr, Neighbour& n) {
    if (attr == nullptr || mnl_attr_get_payload_len(attr) < sizeof(nda_cacheinfo))
        return;
    nda_cacheinfo info{};
    std::memcpy(&info, mnl_attr_get_payload(attr), sizeof info);
    const auto now = Neighbour::Clock::now();
    n.confirmed = ago(now, info.ndm_confirmed);
    n.updated = ago(now, info.ndm_updated);
}

int entry(const nlmsghdr* header, void* data) {
    const auto* nd = static_cast<const ndmsg*>(mnl_nlmsg_get_payload(header));
    std::array<const nlattr*, NDA_MAX + 1> attrs{};
    if (mnl_attr_parse(header, sizeof *nd, attribute, attrs.data()) < 0)
        return MNL_CB_OK;
    const nlattr* dst = attrs[NDA_DST];
    const nlattr* lladdr = attrs[NDA_LLADDR];
    // A failed or incomplete entry has no link-layer address: it still tells that nobody
    // answered there.
    if (dst == nullptr || (lladdr != nullptr && mnl_attr_get_payload_len(lladdr) != 6))
        return MNL_CB_OK;
    Neighbour n;
    char name[IF_NAMESIZE] = {};
    if (::if_indextoname(static_cast<unsigned int>(nd->ndm_ifindex), name) == nullptr)
        return MNL_CB_OK;
    n.iface = name;
    n.ip = address_of(dst, nd->ndm_family);
    if (lladdr != nullptr) {
        std::array<std::uint8_t, 6> mac{};
        std::memcpy(mac.data(), mnl_attr_get_payload(lladdr), mac.size());
        n.mac = sockutl::macaddr(mac);
    }
    n.state = nd->ndm_state;
    read_times(attrs[NDA_CACHEINFO], n);
    if (n.ip.is_v4_or_v6())
        static_cast<std::vector<Neighbour>*>(data)->push_back(std::move(n));
    return MNL_CB_OK;
}

}  // namespace

bool is_live(const Neighbour& neighbour) {
    return (neighbour.state & kLiveStates) != 0 && neighbour.mac.is_valid();
}

std::optional<std::vector<Neighbour>> dump_neighbours() {
    const MnlSocket socket = open_socket(0, 0);
    if (!socket)
        return std::nullopt;
    std::vector<char> buf(MNL_SOCKET_BUFFER_SIZE);
    nlmsghdr* header = mnl_nlmsg_put_header(buf.data());
    header->nlmsg_type = RTM_GETNEIGH;
    header->nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    const unsigned int seq = static_cast<unsigned int>(std::time(nullptr));
    header->nlmsg_seq = seq;
    auto* nd = static_cast<ndmsg*>(mnl_nlmsg_put_extra_header(header, sizeof(ndmsg)));
    nd->ndm_family = AF_UNSPEC;
    if (mnl_socket_sendto(socket.get(), header, header->nlmsg_len) < 0) {
        NK_LOG(nk::log::ERROR, "neighbour table request: {:s}", std::strerror(errno));
        return std::nullopt;
    }
    const unsigned int port = mnl_socket_get_portid(socket.get());
    std::vector<Neighbour> out;
    for (;;) {
        const ssize_t n = mnl_socket_recvfrom(socket.get(), buf.data(), buf.size());
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0) {
            NK_LOG(nk::log::ERROR, "neighbour table: {:s}", std::strerror(errno));
            return std::nullopt;
        }
        const int rc = mnl_cb_run(buf.data(), static_cast<std::size_t>(n), seq, port, entry, &out);
        if (rc == MNL_CB_STOP)
            return out;
        if (rc < 0) {
            NK_LOG(nk::log::ERROR, "neighbour table: {:s}", std::strerror(errno));
            return std::nullopt;
        }
    }
}

bool probe_neighbour(const std::string& iface, const sockutl::address& ip,
                     const sockutl::macaddr& mac) {
    const unsigned int index = ::if_nametoindex(iface.c_str());
    const MnlSocket socket = index != 0 ? open_socket(0, 0) : nullptr;
    if (!socket)
        return false;
    std::array<char, 256> buf{};
    nlmsghdr* header = mnl_nlmsg_put_header(buf.data());
    header->nlmsg_type = RTM_NEWNEIGH;
    header->nlmsg_flags = NLM_F_REQUEST | NLM_F_ACK | NLM_F_CREATE | NLM_F_REPLACE;
    header->nlmsg_seq = static_cast<unsigned int>(std::time(nullptr));
    auto* nd = static_cast<ndmsg*>(mnl_nlmsg_put_extra_header(header, sizeof(ndmsg)));
    nd->ndm_family = ip.is_v4() ? AF_INET : AF_INET6;
    nd->ndm_ifindex = static_cast<int>(index);
    // A probing entry sends unicast solicitations at once, without the delay a stale one waits.
    nd->ndm_state = NUD_PROBE;
    mnl_attr_put(header, NDA_DST, ip.size(), ip.bytes());
    mnl_attr_put(header, NDA_LLADDR, mac.bytes().size(), mac.bytes().data());
    if (mnl_socket_sendto(socket.get(), header, header->nlmsg_len) < 0) {
        NK_LOG(nk::log::WARN, "cannot probe {} at {}: {:s}", mac, ip, std::strerror(errno));
        return false;
    }
    std::vector<char> answer(MNL_SOCKET_BUFFER_SIZE);
    const ssize_t n = mnl_socket_recvfrom(socket.get(), answer.data(), answer.size());
    if (n < 0 || mnl_cb_run(answer.data(), static_cast<std::size_t>(n), header->nlmsg_seq,
                            mnl_socket_get_portid(socket.get()), nullptr, nullptr) < 0) {
        NK_LOG(nk::log::WARN, "cannot probe {} at {}: {:s}", mac, ip, std::strerror(errno));
        return false;
    }
    return true;
}

void MnlSocketCloser::operator()(mnl_socket* socket) const {
    mnl_socket_close(socket);
}

std::optional<NeighbourMonitor> NeighbourMonitor::open() {
    MnlSocket socket = open_socket(SOCK_NONBLOCK, 1u << (RTNLGRP_NEIGH - 1));
    if (!socket)
        return std::nullopt;
    return NeighbourMonitor(std::move(socket));
}

int NeighbourMonitor::fd() const {
    return mnl_socket_get_fd(socket_.get());
}

bool NeighbourMonitor::drain() {
    std::vector<char> buf(MNL_SOCKET_BUFFER_SIZE);
    bool any = false;
    for (;;) {
        const ssize_t n = mnl_socket_recvfrom(socket_.get(), buf.data(), buf.size());
        if (n > 0) {
            any = true;
            continue;
        }
        if (n < 0 && errno == EINTR)
            continue;
        // ENOBUFS: the kernel dropped notifications; the table must be read again all the same.
        return any || (n < 0 && errno == ENOBUFS);
    }
}

}  // namespace nk::collector
