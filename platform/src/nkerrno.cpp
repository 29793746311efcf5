#include "nk/nkerrno.h"

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

}  // namespace nk
