// Host names as evidence of who a client is. A name counts only when few devices carry it: a
// system's default ("iPhone", "android-1c1335ec95a27318", "Galaxy-S21") is shared by many, and
// two of them on one LAN may well be two people's.
#pragma once

#include <string>
#include <string_view>

namespace nk::collector {

// The name as compared: lower case, its first label (an mDNS name without ".local"). Empty when
// it tells nothing: empty or "*", longer than 253 bytes or a label of more than 63, bytes
// outside printable ASCII, or generic.
std::string distinctive_name(std::string_view name);

// Whether a lower-case label is one many devices share: the defaults of phones, tablets,
// computers and systems, with or without a conflict suffix ("iphone-2").
bool is_generic_name(std::string_view label);

}  // namespace nk::collector
