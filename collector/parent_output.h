// The collector's output to the daemon: whole lines only.
#pragma once

#include <string_view>

namespace nk::collector {

// Writes `line` and a newline to `fd`, waiting while the pipe is full and going on after
// signals; false once the reader is gone (or another write error), when nothing more can be
// said.
bool write_line(int fd, std::string_view line);

}  // namespace nk::collector
