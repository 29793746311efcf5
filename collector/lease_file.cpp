#include "lease_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include <nk/io.h>
#include <nk/setmgmt.h>

#include "dnsmasq_leases.h"
#include "isc_leases.h"
#include "leases.h"

namespace nk::collector {

namespace {

std::vector<std::string> split_list(const std::string& list) {
    std::vector<std::string> out;
    std::size_t start = 0;
    while (start <= list.size()) {
        std::size_t comma = list.find(',', start);
        if (comma == std::string::npos)
            comma = list.size();
        std::string piece = list.substr(start, comma - start);
        const auto first = piece.find_first_not_of(" \t\n");
        const auto last = piece.find_last_not_of(" \t\n");
        if (first != std::string::npos)
            out.push_back(piece.substr(first, last - first + 1));
        start = comma + 1;
    }
    return out;
}

}  // namespace

std::vector<std::string> lease_file_paths() {
    const std::vector<std::string> named =
        split_list(nk::setMgmt::getKeyValue(std::string(kLeaseFilesKey), ""));
    if (!named.empty())
        return named;
    std::vector<std::string> all;
    for (const std::string_view dir : nk::leases::kLeaseDirs) {
        for (const std::string_view name : nk::leases::kLeaseFiles)
            all.push_back(std::string(dir) + "/" + std::string(name));
    }
    return all;
}

LeaseFormat detect_lease_format(std::string_view text) {
    if (text.find_first_not_of(" \t\r\n") == std::string_view::npos)
        return LeaseFormat::Empty;
    if (looks_like_dnsmasq(text))
        return LeaseFormat::Dnsmasq;
    if (looks_like_isc(text))
        return LeaseFormat::Isc;
    return LeaseFormat::Unknown;
}

LeaseFile read_lease_text(std::string_view text, std::time_t now) {
    switch (detect_lease_format(text)) {
        case LeaseFormat::Empty:
            return {};
        case LeaseFormat::Dnsmasq:
            return read_dnsmasq_leases(text, now);
        case LeaseFormat::Isc:
            return read_isc_leases(text, now);
        case LeaseFormat::Unknown:
            break;
    }
    LeaseFile unknown;
    unknown.problems.push_back({1, "unknown lease file format"});
    return unknown;
}

bool read_file(const std::string& path, std::string& out, std::size_t limit) {
    const nk::io::unique_fd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd)
        return false;
    out.clear();
    char buf[65536];
    for (;;) {
        const ssize_t n = ::read(fd.get(), buf, sizeof buf);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return false;
        if (n == 0)
            return true;
        if (out.size() + static_cast<std::size_t>(n) > limit) {
            errno = EFBIG;
            return false;
        }
        out.append(buf, static_cast<std::size_t>(n));
    }
}

}  // namespace nk::collector
