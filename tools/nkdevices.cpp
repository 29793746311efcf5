// nkdevices: shows and edits the device table.
//   nkdevices [--devmgmt DIR] list | get ID | del ID
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "nk/constants.h"
#include "nk/devmgmt.h"
#include "nk/json.h"
#include "nk/log.h"

namespace {

using nk::devMgmt::Device;

constexpr int kExitNotFound = 1;
constexpr int kExitUsage = 2;

constexpr const char* kUsage =
    "usage: nkdevices [--devmgmt DIR] COMMAND\n"
    "  list      every record, one compact JSON object a line, ordered by device id\n"
    "  get ID    the record of device ID\n"
    "  del ID    removes the record of device ID\n"
    "The table is in DIR, else $NK_DEVMGMT_DIR, else /dev/shm/nk-devmgmt.\n"
    "Exit status: 0 done, 1 no such record or table error, 2 bad usage.\n";

int usage(std::FILE* out, int status) {
    std::fputs(kUsage, out);
    return status;
}

void print(const Device& device) {
    const nk::json_ptr json(device.to_json());
    std::puts(nk::json_dump_compact(json.get()).c_str());
}

int list() {
    const std::optional<nk::devMgmt::Snapshot> snapshot = nk::devMgmt::Snapshot::take();
    if (!snapshot)
        return kExitNotFound;  // the reason is logged
    for (const Device& device : snapshot->list())
        print(device);
    return std::fflush(stdout) == 0 ? 0 : kExitNotFound;
}

int get(const std::string& id) {
    Device device;
    device.device_id = id;
    if (!device.load_from_shmem(false, true)) {
        std::fprintf(stderr, "nkdevices: no device %s\n", id.c_str());
        return kExitNotFound;
    }
    print(device);
    return 0;
}

int del(const std::string& id) {
    Device device;
    device.device_id = id;
    if (!device.delete_shmem()) {
        std::fprintf(stderr, "nkdevices: no device %s\n", id.c_str());
        return kExitNotFound;
    }
    return 0;
}

int run(const std::vector<std::string>& args) {
    if (args.size() == 1 && args[0] == "list")
        return list();
    if (args.size() == 2 && args[0] == "get")
        return get(args[1]);
    if (args.size() == 2 && args[0] == "del")
        return del(args[1]);
    return usage(stderr, kExitUsage);
}

}  // namespace

int main(int argc, char** argv) {
    nk::log::init("nkdevices");
    std::vector<std::string> args;
    for (int i = 1; i < argc; ++i) {
        const std::string_view arg = argv[i];
        if (arg == "--help" || arg == "-h")
            return usage(stdout, 0);
        if (arg == "--devmgmt") {
            if (i + 1 == argc)
                return usage(stderr, kExitUsage);
            // The option wins over the environment, for this process and its children.
            ::setenv(nk::kDevmgmtDirEnv, argv[++i], 1);
        } else {
            args.emplace_back(arg);
        }
    }
    return run(args);
}
