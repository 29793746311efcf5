// What an operator does to the emulated cloud from the command line: devices appear, go away
// or are renamed as if by the user's app, with the inventory events the real cloud sends; and
// faults are stored for a running server to pick up.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "cloud_db.h"

namespace nkemu {

enum OperatorExit : int {
    kExitOk = 0,
    kExitRefused = 1,  // no such device, MAC already known, the BOX itself
    kExitUsage = 64,   // EX_USAGE
    kExitFailure = 3,  // database or bus failure
};

// `args`: the command word and its arguments (add, remove, rename, list, show, fault); list and
// show also take "--json" among them.
// Returns the exit status, having said why on stderr; empty when the command or the number
// of its arguments is wrong (the caller shows the usage).
std::optional<int> run_operator_command(CloudDb& db, const std::vector<std::string>& args);

}  // namespace nkemu
