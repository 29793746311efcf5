// nkdevinfo: the collector the daemon runs. It reads the LAN's DHCP leases (or, with another
// DHCP server on the LAN, the neighbour table) and writes what it finds as JSON lines.
//   nkdevinfo -internal | -external [--once] [--settings DIR] [--log-level N]
#include <getopt.h>
#include <sys/stat.h>
#include <sysexits.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>

#include <fmt/format.h>
#include <nk/constants.h>
#include <nk/daemon.h>
#include <nk/log.h>
#include <nk/memory_budget.h>
#include <nk/setmgmt.h>

#include "collector.h"

namespace {

using nk::collector::Mode;

constexpr const char* kSynopsis =
    "Usage: nkdevinfo -internal | -external [--once] [--settings DIR] [--log-level N]\n";

constexpr const char* kHelpText =
    "\n"
    "Writes a \"leases\" message, one JSON line, at start, whenever the LAN's leases change\n"
    "(at most one a second) and at least every minute, until SIGTERM or until its output is\n"
    "closed. nkdevicediscovery runs it and reads its output.\n"
    "\n"
    "Modes:\n"
    "  -internal        the BOX serves DHCP: its lease files (dnsmasq or ISC dhcpd), named by\n"
    "                   /network/dhcp/lease_files or found in the usual places, with the\n"
    "                   clients' other IPv6 addresses from the neighbour table\n"
    "  -external        another server does: the neighbour table of the LAN interfaces\n"
    "\n"
    "Options:\n"
    "  --once           write one message and exit\n"
    "  --settings DIR   the settings store (default: $NK_SETTINGS_DIR, else\n"
    "                   /var/lib/nk/settings); it must exist\n"
    "  --log-level N    most verbose level logged, 0 (errors) to 4 (trace)\n"
    "  -h, --help       show this help\n"
    "  --version        show the version\n"
    "\n"
    "Exit status: 0 stopped or done, 1 cannot start or write, 64 usage.\n";

struct Options {
    std::optional<Mode> mode;
    bool once = false;
    int log_level = -1;
    bool help = false;
    bool version = false;
};

int usage_error(const std::string& why) {
    fmt::print(stderr, "nkdevinfo: {}\n{}Try 'nkdevinfo --help' for more information.\n", why,
               kSynopsis);
    return EX_USAGE;
}

// The usage error, or empty when the options are fine.
std::optional<std::string> parse(int argc, char** argv, Options& opts) {
    static const option kLong[] = {{"internal", no_argument, nullptr, 'i'},
                                   {"external", no_argument, nullptr, 'e'},
                                   {"once", no_argument, nullptr, 'o'},
                                   {"settings", required_argument, nullptr, 's'},
                                   {"log-level", required_argument, nullptr, 'l'},
                                   {"help", no_argument, nullptr, 'h'},
                                   {"version", no_argument, nullptr, 'V'},
                                   {nullptr, 0, nullptr, 0}};
    ::opterr = 0;
    int c = 0;
    while ((c = ::getopt_long_only(argc, argv, ":h", kLong, nullptr)) != -1) {
        switch (c) {
            case 'i':
            case 'e': {
                const Mode mode = c == 'i' ? Mode::Internal : Mode::External;
                if (opts.mode && *opts.mode != mode)
                    return "-internal and -external exclude each other";
                opts.mode = mode;
                break;
            }
            case 'o':
                opts.once = true;
                break;
            case 's':
                if (*::optarg == '\0')
                    return "--settings needs a non-empty value";
                ::setenv(nk::kSettingsDirEnv, ::optarg, 1);
                break;
            case 'l': {
                const std::optional<int> level = nk::daemon::parse_log_level(::optarg);
                if (!level)
                    return fmt::format("--log-level takes 0 to 4, not '{}'", ::optarg);
                opts.log_level = *level;
                break;
            }
            case 'h':
                opts.help = true;
                break;
            case 'V':
                opts.version = true;
                break;
            case ':':
                return fmt::format("option '{}' needs a value", argv[::optind - 1]);
            default:
                return fmt::format("unknown option '{}'", argv[::optind - 1]);
        }
    }
    if (opts.help || opts.version)
        return std::nullopt;
    if (::optind < argc)
        return fmt::format("unexpected argument '{}'", argv[::optind]);
    if (!opts.mode)
        return std::string("-internal or -external is required");
    return std::nullopt;
}

// Run by a detached daemon, the collector's stderr is /dev/null: its lines go to syslog.
nk::log::Output log_output() {
    struct stat err {};
    struct stat null {};
    if (::fstat(STDERR_FILENO, &err) != 0 || ::stat("/dev/null", &null) != 0)
        return nk::log::Output::Syslog;
    const bool is_null = S_ISCHR(err.st_mode) && err.st_rdev == null.st_rdev;
    return is_null ? nk::log::Output::Syslog : nk::log::Output::Stderr;
}

// The collector reads and keeps state in the daemon's store; it never makes one.
bool store_exists() {
    const std::string root = nk::setMgmt::root();
    std::error_code ec;
    if (std::filesystem::is_directory(root, ec))
        return true;
    fmt::print(stderr, "nkdevinfo: no settings store at {}\n", root);
    return false;
}

}  // namespace

int main(int argc, char** argv) {
    nk::memory::set_budget();
    Options opts;
    if (const std::optional<std::string> error = parse(argc, argv, opts))
        return usage_error(*error);
    if (opts.help) {
        fmt::print("{}{}", kSynopsis, kHelpText);
        return 0;
    }
    if (opts.version) {
        fmt::print("nkdevinfo {}\n", NK_VERSION);
        return 0;
    }
    if (!store_exists())
        return 1;
    nk::log::init("nkdevinfo", log_output());
    if (opts.log_level >= 0)
        nk::log::set_level(opts.log_level);
    if (nk::setMgmt::init() < 0) {
        NK_LOG(nk::log::ERROR, "cannot open the settings store {:s}", nk::setMgmt::root());
        return 1;
    }
    nk::collector::Collector collector(*opts.mode, STDOUT_FILENO);
    const int status = opts.once ? collector.run_once() : collector.run();
    nk::setMgmt::uninit();
    return status;
}
