// Small helpers of the box's daemons.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace nk {

// Standard alphabet, padding required, no white space; empty on any fault.
std::optional<std::string> base64_decode(std::string_view text);
std::string base64_encode(std::string_view bytes);

// The name to keep for a host name seen in DHCP: the part before the first dot, without
// control characters or invalid UTF-8, trimmed, at most 63 bytes on a character boundary.
std::string extract_hostname(const std::string& raw);

// IFF_UP of the named interface; false when it does not exist.
bool is_interface_up(const std::string& name);

// 0: the box's own DHCP server; 1: an external one. From /network/dhcp/leases_mode.
int get_nkleases_mode();

// The common path of kind 1: NK_LIBEXEC_DIR, else the directory of the running program.
std::string common_path_kind1();

// Monotonic seconds.
long monotonic_seconds();

}  // namespace nk
