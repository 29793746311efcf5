#include "daemon_process.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <utility>

#include "wait.h"

namespace nk::test {

DaemonProcess::~DaemonProcess() {
    if (pid_ > 0)
        stop(SIGKILL);
}

bool DaemonProcess::start(const std::vector<std::string>& argv) {
    // A second run of the same object starts with the log of its own.
    lines_.clear();
    eof_ = false;
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0)
        return false;
    std::vector<char*> args;
    for (const std::string& a : argv)
        args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    const pid_t parent = ::getpid();
    const pid_t pid = ::fork();
    if (pid < 0) {
        ::close(fds[0]);
        ::close(fds[1]);
        return false;
    }
    if (pid == 0) {
        // A test that dies without its destructors (a sanitizer's abort, ctest's time-out)
        // takes its broker and daemons with it.
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (::getppid() != parent)
            ::_exit(127);
        ::dup2(fds[1], STDERR_FILENO);
        ::execv(args[0], args.data());
        ::_exit(127);
    }
    ::close(fds[1]);
    pid_ = pid;
    reader_ = std::thread([this, fd = fds[0]] { read_loop(fd); });
    return true;
}

void DaemonProcess::read_loop(int fd) {
    std::string partial;
    char buf[4096];
    for (ssize_t n; (n = ::read(fd, buf, sizeof(buf))) > 0;) {
        partial.append(buf, static_cast<size_t>(n));
        const std::lock_guard lock(mutex_);
        for (size_t nl; (nl = partial.find('\n')) != std::string::npos; partial.erase(0, nl + 1)) {
            lines_.push_back(partial.substr(0, nl));
            std::fputs((lines_.back() + "\n").c_str(), stderr);  // keep it in the test log
        }
        changed_.notify_all();
    }
    ::close(fd);
    std::lock_guard lock(mutex_);
    if (!partial.empty())
        lines_.push_back(partial);
    eof_ = true;
    changed_.notify_all();
}

bool DaemonProcess::wait_for_line(const std::string& text, std::chrono::milliseconds timeout) {
    std::unique_lock lock(mutex_);
    size_t checked = 0;
    return changed_.wait_for(lock, timeout, [&] {
        for (; checked < lines_.size(); ++checked) {
            if (lines_[checked].find(text) != std::string::npos)
                return true;
        }
        return eof_;
    }) && checked < lines_.size();
}

int DaemonProcess::count_lines(const std::string& text) {
    const std::lock_guard lock(mutex_);
    return static_cast<int>(std::count_if(lines_.begin(), lines_.end(), [&](const std::string& l) {
        return l.find(text) != std::string::npos;
    }));
}

std::string DaemonProcess::log() {
    std::lock_guard lock(mutex_);
    std::string all;
    for (const std::string& line : lines_)
        all += line + "\n";
    return all;
}

int DaemonProcess::stop(int signal, std::chrono::milliseconds timeout) {
    if (pid_ <= 0)
        return -1;
    ::kill(pid_, signal);
    return wait_exit(timeout);
}

int DaemonProcess::wait_exit(std::chrono::milliseconds timeout) {
    if (pid_ <= 0)
        return -1;
    const int status = reap(std::exchange(pid_, 0), timeout);
    if (reader_.joinable())
        reader_.join();
    return status;
}

}  // namespace nk::test
