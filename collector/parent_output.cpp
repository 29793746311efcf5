#include "parent_output.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include <nk/log.h>

namespace nk::collector {

bool write_line(int fd, std::string_view line) {
    std::string text(line);
    text.push_back('\n');
    std::size_t done = 0;
    while (done < text.size()) {
        const ssize_t n = ::write(fd, text.data() + done, text.size() - done);
        if (n > 0) {
            done += static_cast<std::size_t>(n);
            continue;
        }
        const int err = n < 0 ? errno : EIO;
        if (err == EINTR)
            continue;
        if (err == EAGAIN) {
            pollfd p{fd, POLLOUT, 0};
            ::poll(&p, 1, -1);
            continue;
        }
        if (err != EPIPE)
            NK_LOG(nk::log::ERROR, "writing to the daemon: {:s}", std::strerror(err));
        return false;
    }
    return true;
}

}  // namespace nk::collector
