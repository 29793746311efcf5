// The DHCP server's lease files: which ones, and what they hold.
#pragma once

#include <ctime>
#include <string>
#include <string_view>
#include <vector>

#include "lease.h"

namespace nk::collector {

// Names the lease files explicitly, comma-separated; without it the usual places are searched.
inline constexpr const char* kLeaseFilesKey = "/network/dhcp/lease_files";

// The files of the settings key, else every usual name in every usual directory; those
// that do not exist (yet) are read as no leases.
std::vector<std::string> lease_file_paths();

enum class LeaseFormat { Empty, Dnsmasq, Isc, Unknown };

LeaseFormat detect_lease_format(std::string_view text);

// The leases of a file's text in whichever format it has; an unknown format gives none and
// one problem.
LeaseFile read_lease_text(std::string_view text, std::time_t now);

// A file's content, at most `limit` bytes; false when it cannot be read (absent included).
bool read_file(const std::string& path, std::string& out, std::size_t limit = 16 << 20);

}  // namespace nk::collector
