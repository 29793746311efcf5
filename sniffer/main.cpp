// nksifter: watches the LAN and guest interfaces for DHCP client messages and HTTP user agents
// and hands them to nkdevicediscovery as bus events.
//   nksifter [--interfaces IF[,IF...]] [--settings DIR] [--broker ADDR] [--log-level N]
#include <getopt.h>
#include <signal.h>
#include <sysexits.h>

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

#include "interface_roles.h"
#include "sifter.h"

namespace {

constexpr const char* kSynopsis =
    "Usage: nksifter [--interfaces IF[,IF...]] [--settings DIR] [--broker ADDR] "
    "[--log-level N]\n";

constexpr const char* kHelpText =
    "\n"
    "Captures DHCPv4 and DHCPv6 client messages and the first segments of HTTP requests on the\n"
    "LAN and guest interfaces and publishes them on the bus as \"sifter_dhcp_payload\" and\n"
    "\"sifter_user_agent\" events for nkdevicediscovery. The same user agent from the same MAC\n"
    "is published at most once a minute. Runs in the foreground until SIGTERM or SIGINT.\n"
    "\n"
    "Options:\n"
    "  --interfaces IF[,IF...]  capture on these instead of the interfaces whose role in\n"
    "                           /network/interfaces/roles is lan or guest (followed as it\n"
    "                           changes)\n"
    "  --settings DIR           the settings store (default: $NK_SETTINGS_DIR, else\n"
    "                           /var/lib/nk/settings)\n"
    "  --broker ADDR            the bus: unix:PATH or tcp:HOST:PORT (default: $NKEX_BROKER,\n"
    "                           else unix:/run/nk/nkex.sock)\n"
    "  --log-level N            most verbose level logged, 0 (errors) to 4 (trace)\n"
    "  -h, --help               show this help\n"
    "  --version                show the version\n"
    "\n"
    "Capturing needs CAP_NET_RAW (root, or: setcap cap_net_raw+ep nksifter).\n"
    "Exit status: 0 stopped, 1 cannot start, 64 usage, 77 not permitted to capture.\n";

struct Options {
    std::vector<std::string> interfaces;
    int log_level = -1;
    bool help = false;
    bool version = false;
};

int usage_error(const std::string& why) {
    fmt::print(stderr, "nksifter: {}\n{}Try 'nksifter --help' for more information.\n", why,
               kSynopsis);
    return EX_USAGE;
}

// The usage error, or nothing when the options are fine.
std::optional<std::string> parse(int argc, char** argv, Options& opts) {
    static const option kLong[] = {{"interfaces", required_argument, nullptr, 'i'},
                                   {"settings", required_argument, nullptr, 's'},
                                   {"broker", required_argument, nullptr, 'b'},
                                   {"log-level", required_argument, nullptr, 'l'},
                                   {"help", no_argument, nullptr, 'h'},
                                   {"version", no_argument, nullptr, 'V'},
                                   {nullptr, 0, nullptr, 0}};
    ::opterr = 0;
    int c = 0;
    while ((c = ::getopt_long(argc, argv, ":h", kLong, nullptr)) != -1) {
        const std::string value = ::optarg != nullptr ? ::optarg : "";
        switch (c) {
            case 'i':
                opts.interfaces = nk::sniffer::split_interfaces(value);
                if (opts.interfaces.empty())
                    return "--interfaces needs at least one interface name";
                break;
            case 's':
                if (value.empty())
                    return "--settings needs a non-empty value";
                ::setenv(nk::kSettingsDirEnv, value.c_str(), 1);
                break;
            case 'b':
                if (!nk::daemon::is_broker_address(value))
                    return fmt::format("--broker wants unix:PATH or tcp:HOST:PORT, not '{}'",
                                       value);
                ::setenv(nk::kBrokerEnv, value.c_str(), 1);
                break;
            case 'l': {
                const std::optional<int> level = nk::daemon::parse_log_level(value.c_str());
                if (!level)
                    return fmt::format("--log-level takes 0 to 4, not '{}'", value);
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
    if (::optind < argc && !opts.help && !opts.version)
        return fmt::format("unexpected argument '{}'", argv[::optind]);
    return std::nullopt;
}

// The roles are read from the store; the sifter never makes one.
bool store_exists() {
    const std::string root = nk::setMgmt::root();
    std::error_code ec;
    if (std::filesystem::is_directory(root, ec))
        return true;
    fmt::print(stderr, "nksifter: no settings store at {}\n", root);
    return false;
}

// Stop signals are read from a signalfd: blocked here, before any thread exists, so that
// every thread (the bus library's too) inherits the mask.
bool block_stop_signals() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    struct sigaction ignore {};
    ignore.sa_handler = SIG_IGN;
    return ::pthread_sigmask(SIG_BLOCK, &signals, nullptr) == 0 &&
           ::sigaction(SIGPIPE, &ignore, nullptr) == 0;
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
        fmt::print("nksifter {}\n", NK_VERSION);
        return 0;
    }
    if (opts.interfaces.empty() && !store_exists())
        return 1;
    nk::log::init("nksifter", nk::log::stderr_is_journal() ? nk::log::Output::Journal
                                                           : nk::log::Output::Stderr);
    if (opts.log_level >= 0)
        nk::log::set_level(opts.log_level);
    if (!block_stop_signals()) {
        fmt::print(stderr, "nksifter: cannot set up its signals\n");
        return 1;
    }
    nk::sniffer::Sifter sifter(nk::sniffer::Config{opts.interfaces});
    return sifter.run();
}
