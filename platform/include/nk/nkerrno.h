// The platform's error number: set by a failing platform call, per thread.
#pragma once

namespace nk {

int _get_nkerrno();
void _set_nkerrno(int value);

}  // namespace nk

#define nkerrno (::nk::_get_nkerrno())
