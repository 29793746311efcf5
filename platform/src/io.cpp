#include "nk/io.h"

#include <sys/epoll.h>

#include <cerrno>
#include <cstring>

#include "nk/log.h"

namespace nk::io {

int epoll_set_fd_ro(int set, int fd) {
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.fd = fd;
    if (::epoll_ctl(set, EPOLL_CTL_ADD, fd, &event) == 0 || errno == EEXIST)
        return 0;
    NK_LOG(0, "cannot add fd {} to epoll set {}: {}", fd, set, std::strerror(errno));
    return -1;
}

int epoll_del_fd(int set, int fd) {
    // Kernels before 2.6.9 want a non-null event even for deletion.
    epoll_event event{};
    if (::epoll_ctl(set, EPOLL_CTL_DEL, fd, &event) == 0 || errno == ENOENT)
        return 0;
    NK_LOG(0, "cannot remove fd {} from epoll set {}: {}", fd, set, std::strerror(errno));
    return -1;
}

}  // namespace nk::io
