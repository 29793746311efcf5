// The account a bus client logs in with, when the broker wants one.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace nk {

struct BusCredentials {
    std::string username;
    std::string password;
};

// The identity behind a client id: a tool's "name-<pid>" is "name".
std::string bus_identity(std::string_view client_id);

// NKEX_CREDENTIALS_DIR (default /etc/nk/bus)/<identity>.cred, one line "user:password". Empty
// when there is none: the client then connects without an account, which an open broker takes.
std::optional<BusCredentials> read_bus_credentials(std::string_view client_id);

}  // namespace nk
