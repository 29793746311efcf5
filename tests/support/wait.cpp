#include "wait.h"

#include <poll.h>

#include <thread>

namespace nk::test {

bool wait_until(const std::function<bool()>& done, std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!done()) {
        if (std::chrono::steady_clock::now() >= deadline)
            return false;
        std::this_thread::sleep_for(2ms);
    }
    return true;
}

bool wait_readable(int fd, std::chrono::milliseconds timeout) {
    pollfd p{fd, POLLIN, 0};
    return ::poll(&p, 1, static_cast<int>(timeout.count())) == 1 &&
           (p.revents & (POLLIN | POLLHUP));
}

}  // namespace nk::test
