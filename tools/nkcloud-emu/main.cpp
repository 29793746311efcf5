// nkcloud-emu: a stand-in for the cloud behind the BOX's connector, with its state in SQLite.
#include <sysexits.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <fmt/format.h>

#include "cloud_db.h"
#include "fault.h"
#include "nk/constants.h"
#include "nk/daemon.h"
#include "nk/log.h"
#include "operator_commands.h"
#include "server.h"

namespace {

constexpr const char* kProgram = "nkcloud-emu";
constexpr const char* kDbEnv = "NK_CLOUD_DB";
constexpr const char* kDbDefault = "nkcloud.db";

constexpr const char* kSynopsis = "[options] [--db FILE] [--json] COMMAND [ARGS]";

constexpr const char* kCommands =
    "\n"
    "Commands:\n"
    "  serve [--fault SPEC]...  answer the cloud commands on the bus until SIGINT/SIGTERM\n"
    "  add MAC [NAME]           a new device (NAME: its friendly name); prints its id\n"
    "  remove ID                removes a device\n"
    "  rename ID NAME           sets a device's friendly name\n"
    "  list                     every device, one JSON object a line\n"
    "  show ID                  a device with the fingerprints, user agents and service\n"
    "                           info its BOX reported\n"
    "  fault add SPEC           a fault for the running server; prints its id\n"
    "  fault list | fault clear\n"
    "add, remove and rename publish the matching devmgmt:device_inventory event.\n"
    "--json (before the command or among its arguments) makes show print one JSON object.\n"
    "\n"
    "SPEC: KIND[=VALUE][,command=NAME][,count=N][,text=TEXT]\n"
    "  delay=MS  answer late      status=N  bus status N (default 3), no data\n"
    "  error=N   error answer, code N (default 500), err_data TEXT\n"
    "  drop      no answer at all\n"
    "\n";

// After the options shared with the daemons in --help.
constexpr const char* kUsageEnd =
    "  --db FILE          the database (NK_CLOUD_DB, default ./nkcloud.db)\n"
    "\n"
    "Exit status: 0 done; 1 refused; 3 database or bus failure; 64 usage.\n";

struct CommandLine {
    std::vector<std::string> common{kProgram};  // for the daemon frame
    std::string db;
    std::vector<std::string> command;
    bool help = false;
    bool json = false;
    std::string error;  // what is wrong with the options, when something is
};

// A usage error: what is wrong, if not said already, and a short usage.
int usage_error(const std::string& why) {
    if (!why.empty())
        fmt::print(stderr, "{}: {}\n", kProgram, why);
    fmt::print(stderr, "Usage: {0} {1}\nTry '{0} --help' for more information.\n", kProgram,
               kSynopsis);
    return EX_USAGE;
}

bool takes_value(std::string_view option) {
    return option == "--settings" || option == "--devmgmt" || option == "--broker" ||
           option == "--log-level" || option == "--db";
}

bool is_common(std::string_view option) {
    return option == "-f" || option == "--foreground" || option == "--version" ||
           (takes_value(option) && option != "--db");
}

// Options before the command word; the command word and all after it are the command's. The
// common options' values are checked by the daemon frame.
CommandLine parse(int argc, char** argv) {
    CommandLine line;
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        std::string value;
        const std::size_t eq = arg.find('=');
        if (arg.compare(0, 2, "--") == 0 && eq != std::string::npos) {
            value = arg.substr(eq + 1);
            arg.resize(eq);
        } else if (takes_value(arg)) {
            if (i + 1 == argc) {
                line.error = "option '" + arg + "' requires an argument";
                return line;
            }
            value = argv[++i];
        }
        if (arg == "-h" || arg == "--help") {
            line.help = true;
        } else if (arg == "--json") {
            line.json = true;
        } else if (arg == "--db") {
            if (value.empty()) {
                line.error = "--db needs a non-empty value";
                return line;
            }
            line.db = value;
        } else if (is_common(arg)) {
            line.common.push_back(arg);
            if (takes_value(arg))
                line.common.push_back(value);
        } else if (arg[0] == '-') {
            line.error = "unknown option '" + std::string(argv[i]) + "'";
            return line;
        } else {
            line.command.assign(argv + i, argv + argc);
            break;
        }
    }
    return line;
}

// Absolute, because a detached server runs in /.
std::string db_path(const std::string& given) {
    const char* env = std::getenv(kDbEnv);
    const std::string file = !given.empty() ? given : (env && *env) ? env : kDbDefault;
    std::error_code ec;
    const std::filesystem::path absolute = std::filesystem::absolute(file, ec);
    return ec ? file : absolute.string();
}

std::optional<std::vector<nkemu::Fault>> parse_serve_options(const std::vector<std::string>& args) {
    std::vector<nkemu::Fault> faults;
    for (std::size_t i = 1; i < args.size(); i += 2) {
        if (args[i] != "--fault" || i + 1 == args.size()) {
            fmt::print(stderr, "{}: serve takes only --fault SPEC options\n", kProgram);
            return std::nullopt;
        }
        std::string why;
        std::optional<nkemu::Fault> fault = nkemu::parse_fault(args[i + 1], why);
        if (!fault) {
            fmt::print(stderr, "{}: {}\n", kProgram, why);
            return std::nullopt;
        }
        faults.push_back(std::move(*fault));
    }
    return faults;
}

bool is_command(const std::string& word) {
    for (const char* known : {"serve", "add", "remove", "rename", "list", "show", "fault"}) {
        if (word == known)
            return true;
    }
    return false;
}

int run(nk::daemon::Instance& frame, const CommandLine& line) {
    const std::string file = db_path(line.db);
    if (line.command[0] != "serve") {
        // A command-line tool speaks only when something goes wrong, unless asked to.
        if (!std::getenv(nk::kLogLevelEnv))
            nk::log::set_level(nk::log::WARN);
        std::optional<nkemu::CloudDb> db = nkemu::CloudDb::open(file);
        if (!db)
            return nkemu::kExitFailure;
        std::vector<std::string> command = line.command;
        if (line.json)
            command.push_back("--json");
        const std::optional<int> status = nkemu::run_operator_command(*db, command);
        if (!status)
            return usage_error("wrong arguments for '" + line.command[0] + "'");
        // A bad MAC or fault spec has been named already.
        return *status == nkemu::kExitUsage ? usage_error("") : *status;
    }
    std::optional<std::vector<nkemu::Fault>> faults = parse_serve_options(line.command);
    if (!faults)
        return usage_error("");
    frame.set_run([&frame, file, faults = std::move(*faults)]() mutable {
        std::optional<nkemu::CloudDb> db = nkemu::CloudDb::open(file);
        return db ? nkemu::serve(*db, frame.on_stop_pipe(), std::move(faults)) : 1;
    });
    return frame.run();
}

}  // namespace

int main(int argc, char** argv) {
    const CommandLine line = parse(argc, argv);
    if (!line.error.empty())
        return usage_error(line.error);
    if (line.help) {
        fmt::print("Usage: {} {}\n{}{}{}", kProgram, kSynopsis, kCommands,
                   nk::daemon::common_usage(), kUsageEnd);
        return 0;
    }
    std::vector<char*> common;
    for (const std::string& arg : line.common)
        common.push_back(const_cast<char*>(arg.c_str()));
    common.push_back(nullptr);
    nk::daemon::Instance& frame = nk::daemon::instance(static_cast<int>(common.size() - 1),
                                                       common.data(), kProgram, kSynopsis);
    if (frame.early_exit() >= 0)
        return frame.early_exit();
    if (line.command.empty())
        return usage_error("no command given");
    if (!is_command(line.command[0]))
        return usage_error("unknown command '" + line.command[0] + "'");
    return run(frame, line);
}
