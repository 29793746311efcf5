#include "wait.h"

#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

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

int reap(pid_t pid, std::chrono::milliseconds timeout) {
    int status = 0;
    if (!wait_until([&] { return ::waitpid(pid, &status, WNOHANG) == pid; }, timeout)) {
        ::kill(pid, SIGKILL);
        ::waitpid(pid, &status, 0);
        return -1;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

}  // namespace nk::test
