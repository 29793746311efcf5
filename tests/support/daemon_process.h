// Runs a program of the project as a real child process and watches its log on stderr.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace nk::test {

class DaemonProcess {
public:
    DaemonProcess() = default;
    ~DaemonProcess();

    // argv[0] is the program path. The child's stderr is collected line by line.
    bool start(const std::vector<std::string>& argv);
    // Waits for a log line containing `text`; true when it appeared.
    bool wait_for_line(const std::string& text,
                       std::chrono::milliseconds timeout = std::chrono::seconds(5));
    int count_lines(const std::string& text);
    std::string log();
    // Sends a signal and waits for the exit; the exit status, or -1 on time-out.
    int stop(int signal, std::chrono::milliseconds timeout = std::chrono::seconds(5));
    int wait_exit(std::chrono::milliseconds timeout = std::chrono::seconds(5));
    pid_t pid() const { return pid_; }
    // True once the child closed its stderr, as it does when it exits.
    bool ended() {
        const std::lock_guard lock(mutex_);
        return eof_;
    }

private:
    void read_loop(int fd);

    pid_t pid_ = 0;
    std::thread reader_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<std::string> lines_;
    bool eof_ = false;
};

}  // namespace nk::test
