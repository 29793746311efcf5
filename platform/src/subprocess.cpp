#include "nk/subprocess.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <thread>

#include "nk/io.h"
#include "nk/log.h"
#include "nk/util.h"

extern char** environ;

namespace nk {

namespace {

using namespace std::chrono_literals;

// How long a child gets to exit after SIGTERM, or after closing its output, before SIGKILL.
constexpr auto kExitGrace = 1s;
constexpr auto kExitPoll = 10ms;
// A line longer than this is dropped rather than held in memory.
constexpr std::size_t kMaxLine = 1 << 20;
// Bytes read per recv(): a child that writes without pause must not starve the event loop;
// the rest stays readable for the next round.
constexpr std::size_t kReadBudget = 1 << 20;

// posix_spawn's attribute and action objects, destroyed on every path.
struct SpawnActions {
    posix_spawn_file_actions_t actions;
    SpawnActions() { ::posix_spawn_file_actions_init(&actions); }
    ~SpawnActions() { ::posix_spawn_file_actions_destroy(&actions); }
    SpawnActions(const SpawnActions&) = delete;
    SpawnActions& operator=(const SpawnActions&) = delete;
};

struct SpawnAttr {
    posix_spawnattr_t attr;
    SpawnAttr() { ::posix_spawnattr_init(&attr); }
    ~SpawnAttr() { ::posix_spawnattr_destroy(&attr); }
    SpawnAttr(const SpawnAttr&) = delete;
    SpawnAttr& operator=(const SpawnAttr&) = delete;
};

// Moves a descriptor above 0..2, so that the child's dup2 onto stdout and the closing of
// everything from 3 on cannot hit it. Happens only when the parent runs with stdio closed.
io::unique_fd above_stdio(io::unique_fd fd) {
    if (!fd || fd.get() > STDERR_FILENO)
        return fd;
    return io::unique_fd(::fcntl(fd.get(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
}

struct Pipe {
    io::unique_fd read;
    io::unique_fd write;
};

// The read end is non-blocking for the event loop; the write end stays blocking, as the
// child's stdio expects.
bool make_output_pipe(Pipe& out) {
    int fds[2] = {-1, -1};
    if (::pipe2(fds, O_CLOEXEC) != 0)
        return false;
    out.read = above_stdio(io::unique_fd(fds[0]));
    out.write = above_stdio(io::unique_fd(fds[1]));
    if (!out.read || !out.write)
        return false;
    const int flags = ::fcntl(out.read.get(), F_GETFL);
    return flags >= 0 && ::fcntl(out.read.get(), F_SETFL, flags | O_NONBLOCK) == 0;
}

// The child starts with a clean slate: no blocked signals, every disposition at its default
// (the parent ignores SIGPIPE, for one), only stdio open.
int spawn(pid_t& pid, const std::string& command, const std::vector<char*>& argv, int out_fd) {
    SpawnActions fa;
    int rc = ::posix_spawn_file_actions_adddup2(&fa.actions, out_fd, STDOUT_FILENO);
    if (rc == 0)
        rc = ::posix_spawn_file_actions_addclosefrom_np(&fa.actions, STDERR_FILENO + 1);
    SpawnAttr sa;
    sigset_t none;
    sigset_t all;
    sigemptyset(&none);
    sigfillset(&all);
    if (rc == 0)
        rc = ::posix_spawnattr_setsigmask(&sa.attr, &none);
    if (rc == 0)
        rc = ::posix_spawnattr_setsigdefault(&sa.attr, &all);
    if (rc == 0) {
        rc = ::posix_spawnattr_setflags(&sa.attr, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    }
    // glibc reports an exec failure here and reaps the failed child itself.
    if (rc == 0)
        rc = ::posix_spawn(&pid, command.c_str(), &fa.actions, &sa.attr, argv.data(), environ);
    return rc;
}

std::string describe_status(int status) {
    if (WIFEXITED(status))
        return fmt::format("exited with status {:d}", WEXITSTATUS(status));
    if (WIFSIGNALED(status))
        return fmt::format("killed by signal {:d}", WTERMSIG(status));
    return fmt::format("ended with wait status {:d}", status);
}

}  // namespace

std::unique_ptr<Subprocess> Subprocess::create(Type type, std::string name, std::string command,
                                               std::vector<std::string> argv) {
    if (command.empty()) {
        NK_LOG(log::ERROR, "subprocess '{:s}' has no command", name);
        return nullptr;
    }
    if (name.empty())
        name = command;
    // The constructor is private; ownership is taken on the spot.
    return std::unique_ptr<Subprocess>(
        new Subprocess(type, std::move(name), std::move(command), std::move(argv)));
}

Subprocess::Subprocess(Type type, std::string name, std::string command,
                       std::vector<std::string> argv)
    : type_(type), name_(std::move(name)), command_(std::move(command)), argv_(std::move(argv)) {}

Subprocess::~Subprocess() {
    stop(true);
}

bool Subprocess::start() {
    if (pid_ > 0) {
        NK_LOG(log::DEBUG, "{} already running", *this);
        return true;
    }
    started_at_ = monotonic_seconds();
    Pipe out;
    if (!make_output_pipe(out)) {
        NK_LOG(log::ERROR, "{:s}: cannot make output pipe: {:s}", name_, std::strerror(errno));
        ++failures_;
        return false;
    }
    std::vector<char*> args;
    args.reserve(argv_.size() + 2);
    args.push_back(name_.data());
    for (std::string& arg : argv_)
        args.push_back(arg.data());
    args.push_back(nullptr);

    pid_t pid = 0;
    const int rc = spawn(pid, command_, args, out.write.get());
    if (rc != 0) {
        NK_LOG(log::ERROR, "{:s}: cannot start {:s}: {:s}", name_, command_, std::strerror(rc));
        ++failures_;
        return false;
    }
    pid_ = pid;
    fd_ = out.read.release();
    partial_.clear();
    discarding_ = false;
    NK_LOG(log::INFO, "started {:s} {}", command_, *this);
    return true;
}

bool Subprocess::stop(bool term) {
    // Closing first makes a child blocked on a full pipe fail its write instead of hanging.
    close_pipe();
    partial_.clear();
    discarding_ = false;
    if (pid_ <= 0)
        return true;
    NK_LOG(log::DEBUG, "stopping {}", *this);
    if (term && ::kill(pid_, SIGTERM) == 0 && wait_exit(kExitGrace))
        return true;
    if (term)
        NK_LOG(log::WARN, "{} ignored SIGTERM, killing it", *this);
    ::kill(pid_, SIGKILL);
    reap(true);
    return true;
}

bool Subprocess::restart() {
    stop(true);
    return start();
}

std::vector<std::string> Subprocess::recv() {
    std::vector<std::string> lines;
    if (fd_ < 0)
        return lines;
    char buf[64 * 1024];
    std::size_t total = 0;
    while (total < kReadBudget) {
        const ssize_t n = ::read(fd_, buf, sizeof buf);
        if (n > 0) {
            total += static_cast<std::size_t>(n);
            split_lines(std::string_view(buf, static_cast<std::size_t>(n)), lines);
            continue;
        }
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK))
            break;
        if (n < 0)
            NK_LOG(log::ERROR, "{}: read failed: {:s}", *this, std::strerror(errno));
        on_end_of_output();
        break;
    }
    return lines;
}

void Subprocess::split_lines(std::string_view data, std::vector<std::string>& lines) {
    while (!data.empty()) {
        const std::size_t nl = data.find('\n');
        if (nl == std::string_view::npos) {
            if (!discarding_)
                partial_.append(data);
            break;
        }
        if (!discarding_) {
            partial_.append(data.substr(0, nl));
            lines.push_back(std::move(partial_));
        }
        partial_.clear();
        discarding_ = false;
        data.remove_prefix(nl + 1);
    }
    if (partial_.size() > kMaxLine) {
        NK_LOG(log::WARN, "{}: line longer than {:d} bytes dropped", *this, kMaxLine);
        partial_.clear();
        partial_.shrink_to_fit();
        discarding_ = true;
    }
}

// Output ends when the child exits; one that closes its stdout and keeps running is stopped,
// since nothing would read from it any more.
void Subprocess::on_end_of_output() {
    close_pipe();
    if (!partial_.empty()) {
        NK_LOG(log::DEBUG, "{}: unterminated last line dropped", *this);
    }
    partial_.clear();
    discarding_ = false;
    if (pid_ > 0 && !wait_exit(kExitGrace)) {
        NK_LOG(log::WARN, "{} closed its output but keeps running", *this);
        stop(true);
    }
    ++failures_;
}

void Subprocess::close_pipe() {
    io::unique_fd closing(fd_);
    fd_ = -1;
}

// Polls rather than blocking on SIGCHLD: the daemon's signals belong to its stop pipe.
bool Subprocess::wait_exit(std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (pid_ > 0) {
        reap(false);
        if (pid_ <= 0 || std::chrono::steady_clock::now() >= deadline)
            break;
        std::this_thread::sleep_for(kExitPoll);
    }
    return pid_ <= 0;
}

void Subprocess::reap(bool blocking) {
    if (pid_ <= 0)
        return;
    int status = 0;
    pid_t r = -1;
    do {
        r = ::waitpid(pid_, &status, blocking ? 0 : WNOHANG);
    } while (r < 0 && errno == EINTR);
    if (r == 0)
        return;
    if (r < 0) {
        // ECHILD: someone else reaped it (SIGCHLD ignored, for one); it is gone either way.
        NK_LOG(log::WARN, "{}: waitpid failed: {:s}", *this, std::strerror(errno));
    } else {
        NK_LOG(log::INFO, "{} {:s}", *this, describe_status(status));
    }
    pid_ = 0;
}

}  // namespace nk
