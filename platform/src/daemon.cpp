#include "nk/daemon.h"

#include <fcntl.h>
#include <getopt.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <sysexits.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>

#include <fmt/format.h>

#include "nk/constants.h"
#include "nk/io.h"
#include "nk/log.h"
#include "nkex_mqtt.h"
#if NK_HAVE_SYSTEMD
#include <systemd/sd-daemon.h>
#endif
#include "stop_signal.h"

#ifndef NK_VERSION
#define NK_VERSION "0.1.0"
#endif

namespace nk::daemon {

namespace {

// Write end of the stop pipe, for the signal handler.
volatile sig_atomic_t g_stop_write = -1;
std::atomic<int> g_stop_read{-1};

extern "C" void on_stop_signal(int) {
    const int saved = errno;
    const char byte = 1;
    // Non-blocking: when the pipe is full a stop is already pending.
    [[maybe_unused]] const ssize_t n = ::write(g_stop_write, &byte, 1);
    errno = saved;
}

bool install_signals() {
    struct sigaction sa {};
    sa.sa_handler = on_stop_signal;
    sigemptyset(&sa.sa_mask);
    for (const int sig : {SIGTERM, SIGINT, SIGHUP}) {
        if (::sigaction(sig, &sa, nullptr) != 0)
            return false;
    }
    struct sigaction ign {};
    ign.sa_handler = SIG_IGN;
    sigemptyset(&ign.sa_mask);
    return ::sigaction(SIGPIPE, &ign, nullptr) == 0;
}

enum OptionId : int {
    kOptSettings = 256,
    kOptDevmgmt,
    kOptBroker,
    kOptLogLevel,
    kOptHelp,
    kOptVersion,
};

const option kLongOptions[] = {
    {"foreground", no_argument, nullptr, 'f'},
    {"settings", required_argument, nullptr, kOptSettings},
    {"devmgmt", required_argument, nullptr, kOptDevmgmt},
    {"broker", required_argument, nullptr, kOptBroker},
    {"log-level", required_argument, nullptr, kOptLogLevel},
    {"help", no_argument, nullptr, kOptHelp},
    {"version", no_argument, nullptr, kOptVersion},
    {nullptr, 0, nullptr, 0},
};

// The environment variable an option's value goes to, where the libraries (and child processes)
// look; null for an option without one.
const char* env_of(int opt) {
    switch (opt) {
        case kOptSettings:
            return kSettingsDirEnv;
        case kOptDevmgmt:
            return kDevmgmtDirEnv;
        case kOptBroker:
            return kBrokerEnv;
        case kOptLogLevel:
            return kLogLevelEnv;
        default:
            return nullptr;
    }
}

const char* long_name(int opt) {
    for (const option& o : kLongOptions) {
        if (o.val == opt)
            return o.name;
    }
    return "";
}

// Why a value is refused, empty when it is fine. A bad broker is caught here rather than when
// the bus first connects, long after the user has looked away.
std::string value_problem(int opt, const char* value) {
    if (*value == '\0')
        return "needs a non-empty value";
    if (opt == kOptLogLevel && !parse_log_level(value))
        return fmt::format("wants 0..4, not '{:s}'", value);
    if (opt == kOptBroker && !nkex_mqtt::parse_broker(value))
        return fmt::format("wants unix:PATH or tcp:HOST:PORT, not '{:s}'", value);
    return {};
}

// stdin, stdout and stderr to /dev/null: a detached daemon has no terminal.
bool redirect_stdio() {
    const io::unique_fd null(::open("/dev/null", O_RDWR | O_CLOEXEC));
    if (!null)
        return false;
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (::dup2(null.get(), fd) < 0)
            return false;
    }
    return true;
}

enum class Side { Parent, Daemon, Failed };

// The classic double fork: the daemon is no session leader, so it can never acquire a
// controlling terminal. The first child is reaped here, leaving no zombie.
Side detach() {
    const pid_t first = ::fork();
    if (first < 0)
        return Side::Failed;
    if (first > 0) {
        int status = 0;
        while (::waitpid(first, &status, 0) < 0 && errno == EINTR) {
        }
        return (WIFEXITED(status) && WEXITSTATUS(status) == 0) ? Side::Parent : Side::Failed;
    }
    if (::setsid() < 0)
        ::_exit(1);
    const pid_t second = ::fork();
    if (second != 0)
        ::_exit(second > 0 ? 0 : 1);
    if (::chdir("/") != 0 || !redirect_stdio())
        ::_exit(1);
    return Side::Daemon;
}

}  // namespace

Instance& instance(int argc, char** argv, std::string_view name, std::string_view synopsis) {
    static Instance frame;
    static bool made = false;
    if (made)
        return frame;
    made = true;
    frame.name_ = std::string(name);
    frame.synopsis_ = std::string(synopsis);
    // The pipe and handlers exist even when the options end the program early, so that the
    // caller's set-up path is the same either way.
    int fds[2] = {-1, -1};
    if (::pipe2(fds, O_CLOEXEC | O_NONBLOCK) == 0) {
        frame.stop_pipe_[0] = fds[0];
        frame.stop_pipe_[1] = fds[1];
        g_stop_write = fds[1];
        g_stop_read = fds[0];
    }
    if (!install_signals()) {
        std::fprintf(stderr, "%s: cannot install signal handlers: %s\n", frame.name_.c_str(),
                     std::strerror(errno));
    }
    if (!frame.parse(argc, argv))
        return frame;
    log::init(frame.name_, log::stderr_is_journal() ? log::Output::Journal : log::Output::Stderr);
    if (frame.log_level_ >= 0)
        log::set_level(frame.log_level_);
    return frame;
}

// getopt_long names a bad option itself (opterr is left on); every other complaint is ours.
bool Instance::parse(int argc, char** argv) {
    optind = 1;
    int opt = 0;
    while ((opt = ::getopt_long(argc, argv, "f", kLongOptions, nullptr)) != -1) {
        if (!apply_option(opt, optarg))
            return usage_error();
        if (early_exit_ >= 0)
            return false;
    }
    if (optind < argc) {
        fmt::print(stderr, "{:s}: unexpected argument '{:s}'\n", name_, argv[optind]);
        return usage_error();
    }
    return true;
}

bool Instance::usage_error() {
    fmt::print(stderr, "Usage: {0:s} {1:s}\nTry '{0:s} --help' for more information.\n", name_,
               synopsis_);
    early_exit_ = EX_USAGE;
    return false;
}

bool Instance::apply_option(int opt, const char* value) {
    switch (opt) {
        case 'f':
            foreground_ = true;
            return true;
        case kOptHelp:
            fmt::print("Usage: {:s} {:s}\n{:s}", name_, synopsis_, common_usage());
            early_exit_ = 0;
            return true;
        case kOptVersion:
            fmt::print("{:s} {:s}\n", name_, NK_VERSION);
            early_exit_ = 0;
            return true;
        default:
            break;
    }
    const char* const env = env_of(opt);
    if (env == nullptr)  // getopt_long has said what was wrong
        return false;
    const std::string problem = value_problem(opt, value);
    if (!problem.empty()) {
        fmt::print(stderr, "{:s}: --{:s} {:s}\n", name_, long_name(opt), problem);
        return false;
    }
    if (opt == kOptLogLevel)
        log_level_ = *parse_log_level(value);
    return ::setenv(env, value, 1) == 0;
}

int Instance::run() {
    if (early_exit_ >= 0)
        return early_exit_;
    if (!run_) {
        NK_LOG(log::ERROR, "no run function set");
        return 1;
    }
    if (!foreground_) {
        std::fflush(nullptr);
        const Side side = detach();
        if (side == Side::Failed) {
            NK_LOG(log::ERROR, "cannot detach");
            return 1;
        }
        if (side == Side::Parent)
            return 0;
        log::init(name_, log::Output::Syslog);
        if (log_level_ >= 0)
            log::set_level(log_level_);
    }
    NK_LOG(log::INFO, "{:s} {:s} starting (pid {:d})", name_, NK_VERSION, ::getpid());
    return run_();
}

// sd_notify is a no-op without NOTIFY_SOCKET, i.e. anywhere but under a systemd service.
void notify_ready() {
#if NK_HAVE_SYSTEMD
    ::sd_notify(0, "READY=1");
#endif
}

void notify_stopping() {
#if NK_HAVE_SYSTEMD
    ::sd_notify(0, "STOPPING=1");
#endif
}

std::optional<int> parse_log_level(const char* text) {
    char* end = nullptr;
    errno = 0;
    const long value = std::strtol(text, &end, 10);
    if (errno != 0 || end == text || *end != '\0' || value < log::ERROR || value > log::TRACE) {
        return std::nullopt;
    }
    return static_cast<int>(value);
}

bool is_broker_address(std::string_view text) {
    return nkex_mqtt::parse_broker(text).has_value();
}

namespace detail {

int stop_fd() {
    return g_stop_read.load();
}

}  // namespace detail

std::string common_usage() {
    return fmt::format(
        "Options:\n"
        "  -f, --foreground   stay in the foreground and log to stderr\n"
        "                     (otherwise detach and log to syslog)\n"
        "  --settings DIR     settings store root ({:s}, default {:s})\n"
        "  --devmgmt DIR      device table directory ({:s}, default {:s})\n"
        "  --broker ADDR      bus broker, unix:PATH or tcp:HOST:PORT ({:s}, default {:s})\n"
        "  --log-level N      most verbose level logged, 0 error .. 4 trace ({:s}, default {:d})\n"
        "  --help             show this help and exit\n"
        "  --version          show the version and exit\n",
        kSettingsDirEnv, kSettingsDirDefault, kDevmgmtDirEnv, kDevmgmtDirDefault, kBrokerEnv,
        kBrokerDefault, kLogLevelEnv, kLogLevelDefault);
}

}  // namespace nk::daemon
