// Text heard on the network, made safe for a log line.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace nk::collector {

// At most `max` bytes of `text` ("..." when cut), bytes other than printable ASCII as '?'.
std::string printable(std::string_view text, std::size_t max = 80);

}  // namespace nk::collector
