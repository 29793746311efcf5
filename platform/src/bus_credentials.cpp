#include "bus_credentials.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "nk/constants.h"
#include "nk/io.h"
#include "nk/log.h"

namespace nk {

namespace {

constexpr std::size_t kMaxCredentialsBytes = 1024;

std::string credentials_file(std::string_view client_id) {
    const char* dir = std::getenv(kBusCredentialsDirEnv);
    std::string path = (dir != nullptr && *dir != '\0') ? dir : kBusCredentialsDirDefault;
    path += '/';
    path += bus_identity(client_id);
    path += ".cred";
    return path;
}

}  // namespace

std::string bus_identity(std::string_view client_id) {
    const std::size_t dash = client_id.rfind('-');
    if (dash == std::string_view::npos || dash + 1 == client_id.size())
        return std::string(client_id);
    const std::string_view tail = client_id.substr(dash + 1);
    const bool is_pid = tail.find_first_not_of("0123456789") == std::string_view::npos;
    return std::string(is_pid ? client_id.substr(0, dash) : client_id);
}

std::optional<BusCredentials> read_bus_credentials(std::string_view client_id) {
    const std::string path = credentials_file(client_id);
    const io::unique_fd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd) {
        // No file is an open bus; one we may not read is a mistake worth naming.
        if (errno != ENOENT)
            NK_LOG(log::WARN, "cannot read the bus account {:s}: {:s}", path, std::strerror(errno));
        return std::nullopt;
    }
    std::array<char, kMaxCredentialsBytes> buffer{};
    const ssize_t n = ::read(fd.get(), buffer.data(), buffer.size());
    if (n <= 0) {
        NK_LOG(log::WARN, "empty bus account {:s}", path);
        return std::nullopt;
    }
    std::string_view text(buffer.data(), static_cast<std::size_t>(n));
    text = text.substr(0, text.find('\n'));
    const std::size_t colon = text.find(':');
    if (colon == std::string_view::npos || colon == 0 || colon + 1 == text.size()) {
        NK_LOG(log::WARN, "bus account {:s} is not \"user:password\"", path);
        return std::nullopt;
    }
    return BusCredentials{std::string(text.substr(0, colon)), std::string(text.substr(colon + 1))};
}

}  // namespace nk
