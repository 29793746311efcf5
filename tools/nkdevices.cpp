// nkdevices: shows and edits the device table, and asks the daemon for device ids.
//   nkdevices [--devmgmt DIR] [--broker ADDR] [--json] list | get ID | del ID | id MAC IP | watch
#include <getopt.h>
#include <signal.h>
#include <sysexits.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <fmt/format.h>

#include "nk/constants.h"
#include "nk/devmgmt.h"
#include "nk/json.h"
#include "nk/log.h"
#include "nk/nkex.h"
#include "nk/sockutl.h"

namespace {

using nk::devMgmt::Device;

constexpr int kExitFailure = 1;  // no such record, no table, or a table error

constexpr const char* kSynopsis =
    "Usage: nkdevices [--devmgmt DIR] [--broker ADDR] [--json]\n"
    "                 list | get ID | del ID | id MAC IP | watch\n";

constexpr const char* kHelpText =
    "\n"
    "Commands:\n"
    "  list      every record, ordered by device id: a table of id, name, MACs, addresses,\n"
    "            online and guest; with --json one compact JSON object a line\n"
    "  get ID    the record of device ID, as JSON\n"
    "  del ID    removes the record of device ID\n"
    "  id MAC IP asks the daemon over the bus, as another daemon does, which device id the LAN\n"
    "            client MAC at IP has, and prints the answer: permanent, temporary (not yet\n"
    "            registered with the cloud) or none (the BOX itself, not on the LAN)\n"
    "  watch     prints the daemon's notices \"permanent_device_id\" (a temporary id was\n"
    "            replaced) and \"clear_device_id_cache\" as they come, until interrupted\n"
    "\n"
    "Options:\n"
    "  --devmgmt DIR  the table's directory (default: $NK_DEVMGMT_DIR, else\n"
    "                 /dev/shm/nk-devmgmt); a missing table is never created\n"
    "  --broker ADDR  the bus (default: $NKEX_BROKER, else unix:/run/nk/nkex.sock); the\n"
    "                 answer is awaited for $NKEX_TIMEOUT_MS (default 10000 ms)\n"
    "  --json         list, id and watch print JSON, one object a line\n"
    "  -h, --help     show this help\n"
    "  --version      show the version\n"
    "\n"
    "Exit status: 0 done, 1 no such record, no table, table error, no bus or no answer,\n"
    "64 usage.\n";

struct Options {
    std::vector<std::string> args;  // command and its operands
    bool json = false;
    bool help = false;
    bool version = false;
};

int usage_error(const std::string& why) {
    if (!why.empty())
        fmt::print(stderr, "nkdevices: {}\n", why);
    fmt::print(stderr, "{}Try 'nkdevices --help' for more information.\n", kSynopsis);
    return EX_USAGE;
}

bool set_dir(const char* dir) {
    if (*dir == '\0') {
        fmt::print(stderr, "nkdevices: --devmgmt needs a non-empty value\n");
        return false;
    }
    // The option wins over the environment, for this process and its children.
    return ::setenv(nk::kDevmgmtDirEnv, dir, 1) == 0;
}

bool set_broker(const char* broker) {
    if (*broker == '\0') {
        fmt::print(stderr, "nkdevices: --broker needs a non-empty value\n");
        return false;
    }
    return ::setenv(nk::kBrokerEnv, broker, 1) == 0;
}

// getopt_long names an unknown option itself; empty when the options are wrong.
std::optional<Options> parse(int argc, char** argv) {
    static const option kLong[] = {
        {"devmgmt", required_argument, nullptr, 'd'}, {"broker", required_argument, nullptr, 'b'},
        {"json", no_argument, nullptr, 'j'},          {"help", no_argument, nullptr, 'h'},
        {"version", no_argument, nullptr, 'V'},       {nullptr, 0, nullptr, 0}};
    Options opts;
    int c = 0;
    while ((c = ::getopt_long(argc, argv, "h", kLong, nullptr)) != -1) {
        bool ok = true;
        switch (c) {
            case 'd':
                ok = set_dir(optarg);
                break;
            case 'b':
                ok = set_broker(optarg);
                break;
            case 'j':
                opts.json = true;
                break;
            case 'h':
                opts.help = true;
                break;
            case 'V':
                opts.version = true;
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

// Opening the table would create it; a viewer must not leave an empty one where the daemon's
// was expected.
bool table_exists() {
    const char* env = std::getenv(nk::kDevmgmtDirEnv);
    const std::string dir = env != nullptr && *env != '\0' ? env : nk::kDevmgmtDirDefault;
    std::error_code ec;
    if (std::filesystem::is_regular_file(std::filesystem::path(dir) / "data.mdb", ec))
        return true;
    fmt::print(stderr, "nkdevices: no device table at {}\n", dir);
    return false;
}

void print_json(const Device& device) {
    const nk::json_ptr json(device.to_json());
    fmt::print("{}\n", nk::json_dump_compact(json.get()));
}

using Row = std::array<std::string, 6>;
constexpr std::size_t kColumns = std::tuple_size<Row>::value;

std::string name_of(const Device& device) {
    for (const std::string* name :
         {&device.friendly_name, &device.display_name, &device.box_detected_name}) {
        if (!name->empty())
            return *name;
    }
    return "-";
}

Row row_of(const Device& device) {
    std::vector<std::string> macs;
    std::vector<std::string> addresses;
    for (const auto& [mac, ips] : device.macips) {
        macs.push_back(mac.to_string());
        for (const nk::sockutl::address& ip : ips)
            addresses.push_back(ip.to_string());
    }
    const auto joined = [](const std::vector<std::string>& items) {
        return items.empty() ? std::string("-") : fmt::format("{}", fmt::join(items, ","));
    };
    return {device.device_id,
            name_of(device),
            joined(macs),
            joined(addresses),
            addresses.empty() ? "no" : "yes",
            device.onguest != 0 ? "yes" : "no"};
}

void print_table(const std::vector<Device>& devices) {
    std::vector<Row> rows{{"ID", "NAME", "MACS", "ADDRESSES", "ONLINE", "GUEST"}};
    for (const Device& device : devices)
        rows.push_back(row_of(device));
    std::array<std::size_t, kColumns> width{};
    for (const Row& row : rows) {
        for (std::size_t i = 0; i < kColumns; ++i)
            width[i] = std::max(width[i], row[i].size());
    }
    for (const Row& row : rows) {
        std::string line;
        for (std::size_t i = 0; i + 1 < kColumns; ++i)
            line += fmt::format("{:<{}}  ", row[i], width[i]);
        fmt::print("{}{}\n", line, row.back());
    }
}

int list(bool json) {
    const std::optional<nk::devMgmt::Snapshot> snapshot = nk::devMgmt::Snapshot::take();
    if (!snapshot)
        return kExitFailure;  // the reason is logged
    const std::vector<Device> devices = snapshot->list();
    if (json) {
        for (const Device& device : devices)
            print_json(device);
    } else {
        print_table(devices);
    }
    return std::fflush(stdout) == 0 ? 0 : kExitFailure;
}

int get(const std::string& id) {
    Device device;
    device.device_id = id;
    if (!device.load_from_shmem(false, true)) {
        fmt::print(stderr, "nkdevices: no device {}\n", id);
        return kExitFailure;
    }
    print_json(device);
    return 0;
}

int del(const std::string& id) {
    Device device;
    device.device_id = id;
    if (!device.delete_shmem()) {
        fmt::print(stderr, "nkdevices: no device {}\n", id);
        return kExitFailure;
    }
    return 0;
}

struct ResponseDeleter {
    void operator()(Message* m) const { nkex_free_response(m); }
};
using response_ptr = std::unique_ptr<Message, ResponseDeleter>;

// Answers come back to the client id, so each run has its own.
nk::nkex_ptr connect_bus(nkex_msg_callback_t callback, void* context) {
    const std::string name = fmt::format("nkdevices-{}", ::getpid());
    nk::nkex_ptr bus(nkex_init(name.c_str(), callback, context, 1));
    if (!bus) {
        const char* broker = std::getenv(nk::kBrokerEnv);
        fmt::print(stderr, "nkdevices: cannot reach the bus at {}\n",
                   broker != nullptr && *broker != '\0' ? broker : nk::kBrokerDefault);
    }
    return bus;
}

std::string string_member(const json_t* json, const char* key) {
    const char* value = nk::json_string_member(json, key);
    return value != nullptr ? value : "";
}

std::string kind_of(const std::string& device_id) {
    if (device_id.empty())
        return "none";
    return device_id.compare(0, nk::kTemporaryDeviceIdPrefix.size(),
                             nk::kTemporaryDeviceIdPrefix) == 0
               ? "temporary"
               : "permanent";
}

void print_answer(const std::string& mac, const std::string& ip, const std::string& device_id,
                  bool json) {
    const std::string kind = kind_of(device_id);
    if (json) {
        const nk::json_ptr out(json_pack("{s:s, s:s, s:s, s:s}", "mac", mac.c_str(), "ip",
                                         ip.c_str(), "device_id", device_id.c_str(), "kind",
                                         kind.c_str()));
        fmt::print("{}\n", nk::json_dump_compact(out.get()));
        return;
    }
    fmt::print("mac        {}\nip         {}\ndevice_id  {}\nkind       {}\n", mac, ip,
               device_id.empty() ? "-" : device_id, kind);
}

int ask_device_id(const std::string& mac, const std::string& ip, bool json) {
    const nk::nkex_ptr bus = connect_bus(nullptr, nullptr);
    if (!bus)
        return kExitFailure;
    const nk::json_ptr body(json_pack("{s:s, s:s}", "mac", mac.c_str(), "ip", ip.c_str()));
    const std::string text = nk::json_dump_compact(body.get());
    Message request{};
    std::snprintf(request.name, sizeof(request.name), "%s", "request_device_id");
    request.data = text.data();
    request.length = text.size();
    Message* raw = nullptr;
    if (nkex_send_request_and_wait_response(bus.get(), &request, &raw) != 0) {
        fmt::print(stderr, "nkdevices: no answer to request_device_id (is the daemon running?)\n");
        return kExitFailure;
    }
    const response_ptr response(raw);
    json_error_t error;
    const nk::json_ptr answer(
        json_loadb(response->data ? response->data : "", response->length, 0, &error));
    if (std::string(response->status) != NKEX_STATUS_OK || !json_is_object(answer.get())) {
        fmt::print(stderr, "nkdevices: unexpected answer (status {}): {}\n", response->status,
                   std::string(response->data ? response->data : "", response->length));
        return kExitFailure;
    }
    print_answer(string_member(answer.get(), "mac"), ip, string_member(answer.get(), "device_id"),
                 json);
    return std::fflush(stdout) == 0 ? 0 : kExitFailure;
}

// The notices are printed by the bus thread, one whole line at a time.
struct Watch {
    std::mutex mutex;
    bool json = false;
};

void print_notice(const Message* m, void* context) {
    auto* watch = static_cast<Watch*>(context);
    const std::string name = m->name;
    json_error_t error;
    const nk::json_ptr data(json_loadb(m->data ? m->data : "", m->length, 0, &error));
    const std::string temp = string_member(data.get(), "temp_device_id");
    const std::string cloud = string_member(data.get(), "cloud_device_id");
    const std::lock_guard lock(watch->mutex);
    if (watch->json) {
        const nk::json_ptr out(name == "permanent_device_id"
                                   ? json_pack("{s:s, s:s, s:s}", "event", name.c_str(),
                                               "temp_device_id", temp.c_str(), "cloud_device_id",
                                               cloud.c_str())
                                   : json_pack("{s:s}", "event", name.c_str()));
        fmt::print("{}\n", nk::json_dump_compact(out.get()));
    } else if (name == "permanent_device_id") {
        fmt::print("{}  {} -> {}\n", name, temp, cloud);
    } else {
        fmt::print("{}  every cached id is void\n", name);
    }
    std::fflush(stdout);
}

int watch_notices(bool json) {
    // Blocked before the bus starts its threads, so that only sigwait sees them.
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGINT);
    sigaddset(&stop, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stop, nullptr);
    Watch watch;
    watch.json = json;
    const nk::nkex_ptr bus = connect_bus(print_notice, &watch);
    if (!bus)
        return kExitFailure;
    const char* names[] = {"permanent_device_id", "clear_device_id_cache"};
    if (nkex_subscribe(bus.get(), names, 2) != 0) {
        fmt::print(stderr, "nkdevices: could not subscribe to the notices\n");
        return kExitFailure;
    }
    fmt::print(stderr, "nkdevices: watching permanent_device_id and clear_device_id_cache\n");
    int sig = 0;
    sigwait(&stop, &sig);
    return 0;
}

int run_bus_command(const Options& opts) {
    nk::log::set_level(nk::log::ERROR);  // the bus says what it does; the tool says it better
    const std::vector<std::string>& args = opts.args;
    if (args[0] == "watch") {
        if (args.size() != 1)
            return usage_error("wrong arguments for 'watch'");
        return watch_notices(opts.json);
    }
    if (args.size() != 3)
        return usage_error("wrong arguments for 'id': MAC and IP");
    const std::optional<nk::sockutl::macaddr> mac = nk::sockutl::macaddr::parse(args[1]);
    if (!mac || !mac->is_valid())
        return usage_error("invalid MAC " + args[1]);
    const std::optional<nk::sockutl::address> ip = nk::sockutl::address::parse(args[2]);
    if (!ip)
        return usage_error("invalid IP address " + args[2]);
    return ask_device_id(mac->to_string(false), ip->to_string(), opts.json);
}

int run(const Options& opts) {
    const std::vector<std::string>& args = opts.args;
    if (args.empty())
        return usage_error("no command given");
    const std::string& command = args[0];
    if (command == "id" || command == "watch")
        return run_bus_command(opts);
    if (command != "list" && command != "get" && command != "del")
        return usage_error("unknown command '" + command + "'");
    if (args.size() != (command == "list" ? 1U : 2U))
        return usage_error("wrong arguments for '" + command + "'");
    if (!table_exists())
        return kExitFailure;
    if (command == "list")
        return list(opts.json);
    return command == "get" ? get(args[1]) : del(args[1]);
}

}  // namespace

int main(int argc, char** argv) {
    nk::log::init("nkdevices");
    const std::optional<Options> opts = parse(argc, argv);
    if (!opts)
        return usage_error("");
    if (opts->help) {
        fmt::print("{}{}", kSynopsis, kHelpText);
        return 0;
    }
    if (opts->version) {
        fmt::print("nkdevices {}\n", NK_VERSION);
        return 0;
    }
    return run(*opts);
}
