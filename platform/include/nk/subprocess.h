// A supervised child process whose standard output is read line by line.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <fmt/format.h>

namespace nk {

class Subprocess {
public:
    enum class Type : int { LEASES = 0, GENERIC = 1 };

    // `argv` holds the arguments after the program name; the child's argv[0] is `name`.
    static std::unique_ptr<Subprocess> create(Type type, std::string name, std::string command,
                                              std::vector<std::string> argv);
    ~Subprocess();
    Subprocess(const Subprocess&) = delete;
    Subprocess& operator=(const Subprocess&) = delete;

    // Forks and execs; the child's stdout goes to a non-blocking pipe, stderr is inherited.
    // A failed start (fork, pipe or exec) counts a failure and returns false.
    // `command` is a path (no PATH search). The child inherits only stdio, with no blocked
    // signals and default dispositions. Starting a running process does nothing (true).
    bool start();
    // SIGTERM (when `term`, else SIGKILL at once), up to 1 s, then SIGKILL; always reaps.
    bool stop(bool term);
    bool restart();
    // The complete lines read so far; a partial line waits for the next call. At end of
    // file the child is reaped, pid becomes 0 and a failure is counted. Reads at most 1 MiB
    // per call (the rest stays readable); a line over 1 MiB is dropped with a log line.
    std::vector<std::string> recv();

    int fd() const { return fd_; }
    pid_t pid() const { return pid_; }
    Type type() const { return type_; }
    const std::string& name() const { return name_; }
    int failures() const { return failures_; }
    void set_failures(int n) { failures_ = n; }
    // Monotonic seconds of the last start attempt.
    long started_at() const { return started_at_; }

private:
    Subprocess(Type type, std::string name, std::string command, std::vector<std::string> argv);
    void close_pipe();
    void reap(bool blocking);
    bool wait_exit(std::chrono::milliseconds timeout);
    void split_lines(std::string_view data, std::vector<std::string>& lines);
    void on_end_of_output();

    Type type_;
    std::string name_;
    std::string command_;
    std::vector<std::string> argv_;
    pid_t pid_ = 0;
    int fd_ = -1;
    int failures_ = 0;
    long started_at_ = 0;
    std::string partial_;
    bool discarding_ = false;  // inside an over-long line, until its newline
};

}  // namespace nk

template <>
struct fmt::formatter<nk::Subprocess> : fmt::formatter<std::string_view> {
    template <typename Ctx>
    auto format(const nk::Subprocess& p, Ctx& ctx) const {
        return fmt::format_to(ctx.out(), "(type={}, pid={:d})",
                              p.type() == nk::Subprocess::Type::LEASES ? "LEASES" : "GENERIC",
                              p.pid());
    }
};
