// Waiting for an event with a deadline instead of sleeping a fixed time.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>

namespace nk::test {

using namespace std::chrono_literals;

// Polls `done` until it holds or the deadline passes; true when it held.
bool wait_until(const std::function<bool()>& done, std::chrono::milliseconds timeout = 5s);

// True when fd became readable (or hung up) within the time-out.
bool wait_readable(int fd, std::chrono::milliseconds timeout = 5s);

// Reaps a child: its exit status (128 + signal when killed), or -1 when it had to be killed
// at the deadline.
int reap(pid_t pid, std::chrono::milliseconds timeout = 5s);

}  // namespace nk::test
