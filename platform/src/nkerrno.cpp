#include "nk/nkerrno.h"

#include <cstring>

#include <fmt/format.h>

namespace nk {

namespace {
thread_local int t_nkerrno = 0;
}

int _get_nkerrno() {
    return t_nkerrno;
}
void _set_nkerrno(int value) {
    t_nkerrno = value;
}

std::string errno_text(int err) {
    return fmt::format("{:s} ({:d})", std::strerror(err), err);
}

}  // namespace nk
