// Waiting for an event with a deadline instead of sleeping a fixed time.
#pragma once

#include <poll.h>
#include <signal.h>
#include <sys/wait.h>

#include <chrono>
#include <thread>

namespace nk::test {

using namespace std::chrono_literals;

// Polls `done` until it holds or the deadline passes; true when it held.
template <typename Done>
bool wait_until(const Done& done, std::chrono::milliseconds timeout = 5s) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!done()) {
        if (std::chrono::steady_clock::now() >= deadline)
            return false;
        std::this_thread::sleep_for(2ms);
    }
    return true;
}

// True when fd became readable (or hung up) within the time-out.
inline bool wait_readable(int fd, std::chrono::milliseconds timeout = 5s) {
    pollfd p{fd, POLLIN, 0};
    return ::poll(&p, 1, static_cast<int>(timeout.count())) == 1 &&
           (p.revents & (POLLIN | POLLHUP));
}

// Reaps a child: its exit status (128 + signal when killed), or -1 when it had to be killed
// at the deadline.
inline int reap(pid_t pid, std::chrono::milliseconds timeout = 5s) {
    int status = 0;
    if (!wait_until([&] { return ::waitpid(pid, &status, WNOHANG) == pid; }, timeout)) {
        ::kill(pid, SIGKILL);
        ::waitpid(pid, &status, 0);
        return -1;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

}  // namespace nk::test
