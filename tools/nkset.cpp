// nkset: reads, writes, watches and locks keys of the settings store from the command line.
#include <getopt.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/signalfd.h>
#include <sys/wait.h>
#include <sysexits.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include <fmt/format.h>

#include "nk/constants.h"
#include "nk/io.h"
#include "nk/nkerrno.h"
#include "nk/setmgmt.h"

extern char** environ;

namespace {

namespace sm = nk::setMgmt;

enum Exit : int {
    kOk = 0,
    kMissing = 1,  // the key (or its value) does not exist
    kBadKey = 2,   // the key's text is not a valid key
    kFailure = 3,  // no store, or it refused: I/O error, lock held elsewhere
    kUsage = EX_USAGE,
    kNoCommand = 127,
};

constexpr const char* kSynopsis =
    "Usage: nkset [--settings DIR] [--wait MS] COMMAND KEY [ARGS...]\n";

constexpr const char* kHelpText =
    "\n"
    "Commands:\n"
    "  get KEY              print the key's value\n"
    "  set KEY VALUE        set the key's value, creating missing parents\n"
    "  del KEY              delete the key and all its subkeys\n"
    "  ls KEY               list the key's subkeys, one per line\n"
    "  watch KEY            print KEY=VALUE now and whenever the value changes (KEY alone\n"
    "                       when it has none), until SIGINT or SIGTERM\n"
    "  lock KEY CMD [ARGS]  run CMD while holding the key's lock; exits with CMD's status\n"
    "\n"
    "Options:\n"
    "  --settings DIR       root of the settings store (default: $NK_SETTINGS_DIR, else\n"
    "                       /var/lib/nk/settings)\n"
    "  --wait MS            how long lock waits for the key (default 2000)\n"
    "  -h, --help           show this help\n"
    "  --version            show the version\n"
    "\n"
    "The store is never created: a missing one is a store failure.\n"
    "Exit status: 0 done, 1 key absent, 2 bad key, 3 no store, store failure or lock busy,\n"
    "64 usage.\n";

int usage_error(const std::string& why) {
    if (!why.empty())
        fmt::print(stderr, "nkset: {}\n", why);
    fmt::print(stderr, "{}Try 'nkset --help' for more information.\n", kSynopsis);
    return kUsage;
}

// Reports the failed call with nkerrno and picks the exit status from it.
int store_error(const char* command, const std::string& key) {
    const int err = nkerrno;
    const bool get = std::strcmp(command, "get") == 0;
    fmt::print(stderr, "nkset: {} {}: {}\n", command, key,
               err != ENOENT ? std::strerror(err)
               : get         ? "no such key or no value"
                             : "no such key");
    return err == ENOENT ? kMissing : err == EINVAL ? kBadKey : kFailure;
}

int cmd_get(const std::string& key) {
    std::string value;
    if (sm::getKey(key, value) < 0)
        return store_error("get", key);
    fmt::print("{}\n", value);
    return kOk;
}

int cmd_set(const std::string& key, const std::string& value) {
    return sm::setKey(key, value) < 0 ? store_error("set", key) : kOk;
}

int cmd_del(const std::string& key) {
    return sm::deleteKey(key) < 0 ? store_error("del", key) : kOk;
}

int cmd_ls(const std::string& key) {
    std::vector<std::string> names;
    if (sm::enumSubkeys(key, names) < 0)
        return store_error("ls", key);
    for (const std::string& name : names)
        fmt::print("{}\n", name);
    return kOk;
}

std::optional<std::string> read_value(const std::string& key) {
    std::string value;
    if (sm::getKey(key, value) < 0)
        return std::nullopt;
    return value;
}

bool print_state(const std::string& key, const std::optional<std::string>& value) {
    if (value) {
        fmt::print("{}={}\n", key, *value);
    } else {
        fmt::print("{}\n", key);
    }
    return std::fflush(stdout) == 0;
}

// The stop signals arrive on a descriptor, so the loop below needs no handler.
nk::io::unique_fd block_stop_signals() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    if (::sigprocmask(SIG_BLOCK, &set, nullptr) != 0)
        return nk::io::unique_fd();
    return nk::io::unique_fd(::signalfd(-1, &set, SFD_CLOEXEC));
}

int cmd_watch(const std::string& key) {
    const nk::io::unique_fd stop = block_stop_signals();
    if (!stop) {
        fmt::print(stderr, "nkset: watch: {}\n", std::strerror(errno));
        return kFailure;
    }
    sm::MonitoredKey watched(key);
    if (watched.fd() < 0)
        return store_error("watch", key);
    std::optional<std::string> last = read_value(key);
    if (!print_state(key, last))
        return kFailure;
    for (;;) {
        pollfd fds[2] = {{stop.get(), POLLIN, 0}, {watched.fd(), POLLIN, 0}};
        if (::poll(fds, 2, -1) < 0) {
            if (errno == EINTR)
                continue;
            fmt::print(stderr, "nkset: watch: {}\n", std::strerror(errno));
            return kFailure;
        }
        if (fds[0].revents != 0)
            return kOk;
        watched.consume();
        std::optional<std::string> now = read_value(key);
        if (now == last)
            continue;
        last = std::move(now);
        if (!print_state(key, last))
            return kFailure;
    }
}

int run_and_wait(const std::vector<std::string>& command) {
    std::vector<char*> argv;
    for (const std::string& arg : command)
        argv.push_back(const_cast<char*>(arg.c_str()));
    argv.push_back(nullptr);
    pid_t pid = 0;
    const int err = ::posix_spawnp(&pid, argv[0], nullptr, nullptr, argv.data(), environ);
    if (err != 0) {
        fmt::print(stderr, "nkset: lock: cannot run {}: {}\n", command[0], std::strerror(err));
        return kNoCommand;
    }
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR)
            return kFailure;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

int cmd_lock(const std::string& key, const std::vector<std::string>& command) {
    if (sm::lockKey(key) < 0) {
        if (nkerrno != EWOULDBLOCK)
            return store_error("lock", key);
        fmt::print(stderr, "nkset: lock {}: held by another process\n", key);
        return kFailure;
    }
    const int status = run_and_wait(command);
    sm::unlockKey(key);
    return status;
}

struct Options {
    std::vector<std::string> args;  // command and its operands
    bool help = false;
    bool version = false;
};

bool parse_wait(const char* text) {
    int ms = 0;
    const char* end = text + std::strlen(text);
    const auto [ptr, ec] = std::from_chars(text, end, ms);
    if (ec != std::errc() || ptr != end || ms < 0) {
        fmt::print(stderr, "nkset: --wait wants milliseconds, not '{}'\n", text);
        return false;
    }
    sm::set_lock_timeout_ms(ms);
    return true;
}

bool set_root(const char* dir) {
    if (*dir == '\0') {
        fmt::print(stderr, "nkset: --settings needs a non-empty value\n");
        return false;
    }
    return ::setenv(nk::kSettingsDirEnv, dir, 1) == 0;
}

// Options stop at the command, so a locked command's own options are left alone. getopt_long
// names an unknown option itself; empty when the command line is wrong, having said why.
std::optional<Options> parse(int argc, char** argv) {
    static const option kLong[] = {{"settings", required_argument, nullptr, 's'},
                                   {"wait", required_argument, nullptr, 'w'},
                                   {"help", no_argument, nullptr, 'h'},
                                   {"version", no_argument, nullptr, 'V'},
                                   {nullptr, 0, nullptr, 0}};
    Options opts;
    int c = 0;
    while ((c = ::getopt_long(argc, argv, "+h", kLong, nullptr)) != -1) {
        bool ok = true;
        switch (c) {
            case 'h':
                opts.help = true;
                break;
            case 'V':
                opts.version = true;
                break;
            case 's':
                ok = set_root(optarg);
                break;
            case 'w':
                ok = parse_wait(optarg);
                break;
            default:  // getopt_long has named the option
                ok = false;
        }
        if (!ok)
            return std::nullopt;
    }
    opts.args.assign(argv + optind, argv + argc);
    return opts;
}

// The store belongs to whoever installs the box: a wrong --settings must not leave a new,
// empty one behind (every write below would create it).
bool store_exists() {
    const std::string root = sm::root();
    std::error_code ec;
    if (std::filesystem::is_directory(root, ec))
        return true;
    fmt::print(stderr, "nkset: no settings store at {}\n", root);
    return false;
}

int dispatch(const std::vector<std::string>& args) {
    const std::string& command = args[0];
    const std::size_t operands = args.size() - 1;
    const bool fits = (command == "set" && operands == 2) || (command == "lock" && operands >= 2) ||
                      (command != "set" && command != "lock" && operands == 1);
    if (!fits)
        return usage_error("wrong arguments for '" + command + "'");
    const std::string& key = args[1];
    if (!sm::is_valid_key(key)) {
        fmt::print(stderr,
                   "nkset: invalid key '{}': a key starts with '/' and has no empty piece and "
                   "no piece starting with '.'\n",
                   key);
        return kBadKey;
    }
    if (!store_exists())
        return kFailure;
    if (command == "get")
        return cmd_get(key);
    if (command == "set")
        return cmd_set(key, args[2]);
    if (command == "del")
        return cmd_del(key);
    if (command == "ls")
        return cmd_ls(key);
    if (command == "watch")
        return cmd_watch(key);
    return cmd_lock(key, std::vector<std::string>(args.begin() + 2, args.end()));
}

bool is_command(const std::string& word) {
    for (const char* known : {"get", "set", "del", "ls", "watch", "lock"}) {
        if (word == known)
            return true;
    }
    return false;
}

}  // namespace

int main(int argc, char** argv) {
    const std::optional<Options> opts = parse(argc, argv);
    if (!opts)
        return usage_error("");
    if (opts->help) {
        fmt::print("{}{}", kSynopsis, kHelpText);
        return kOk;
    }
    if (opts->version) {
        fmt::print("nkset {}\n", NK_VERSION);
        return kOk;
    }
    if (opts->args.empty())
        return usage_error("no command given");
    if (!is_command(opts->args[0]))
        return usage_error("unknown command '" + opts->args[0] + "'");
    return dispatch(opts->args);
}
