// Which LOCATION of an SSDP message the collector fetches: plain HTTP from the very address
// that sent the message. A device cannot make the BOX fetch from elsewhere, the BOX itself and
// the Internet included.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include <nk/sockutl.h>

namespace nk::collector {

inline constexpr std::size_t kMaxLocation = 512;

// The URL to fetch, as libcurl writes it; empty with the reason in `why` when it is no such
// URL.
std::optional<std::string> description_url(std::string_view location,
                                           const sockutl::address& sender, std::string& why);

}  // namespace nk::collector
