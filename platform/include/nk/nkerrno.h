// The platform's error number: set by a failing platform call, per thread.
#pragma once

#include <string>

namespace nk {

int _get_nkerrno();
void _set_nkerrno(int value);

// The system's text of an error number followed by the number, for log lines.
std::string errno_text(int err);

}  // namespace nk

#define nkerrno (::nk::_get_nkerrno())
