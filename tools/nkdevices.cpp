// nkdevices: shows and edits the device table.
//   nkdevices [--devmgmt DIR] [--json] list | get ID | del ID
#include <getopt.h>
#include <sysexits.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include <fmt/format.h>

#include "nk/constants.h"
#include "nk/devmgmt.h"
#include "nk/json.h"
#include "nk/log.h"

namespace {

using nk::devMgmt::Device;

constexpr int kExitFailure = 1;  // no such record, no table, or a table error

constexpr const char* kSynopsis =
    "Usage: nkdevices [--devmgmt DIR] [--json] list | get ID | del ID\n";

constexpr const char* kHelpText =
    "\n"
    "Commands:\n"
    "  list      every record, ordered by device id: a table of id, name, MACs, addresses,\n"
    "            online and guest; with --json one compact JSON object a line\n"
    "  get ID    the record of device ID, as JSON\n"
    "  del ID    removes the record of device ID\n"
    "\n"
    "Options:\n"
    "  --devmgmt DIR  the table's directory (default: $NK_DEVMGMT_DIR, else\n"
    "                 /dev/shm/nk-devmgmt); a missing table is never created\n"
    "  --json         list prints the records as JSON\n"
    "  -h, --help     show this help\n"
    "  --version      show the version\n"
    "\n"
    "Exit status: 0 done, 1 no such record, no table or table error, 64 usage.\n";

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

// getopt_long names an unknown option itself; empty when the options are wrong.
std::optional<Options> parse(int argc, char** argv) {
    static const option kLong[] = {{"devmgmt", required_argument, nullptr, 'd'},
                                   {"json", no_argument, nullptr, 'j'},
                                   {"help", no_argument, nullptr, 'h'},
                                   {"version", no_argument, nullptr, 'V'},
                                   {nullptr, 0, nullptr, 0}};
    Options opts;
    int c = 0;
    while ((c = ::getopt_long(argc, argv, "h", kLong, nullptr)) != -1) {
        bool ok = true;
        switch (c) {
            case 'd':
                ok = set_dir(optarg);
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

int run(const Options& opts) {
    const std::vector<std::string>& args = opts.args;
    if (args.empty())
        return usage_error("no command given");
    const std::string& command = args[0];
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
