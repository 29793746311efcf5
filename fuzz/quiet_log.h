// Fuzz programs run without log output, for speed; a replay with NK_LOG_LEVEL set formats and
// prints every line the inputs cause, so the log arguments are checked under the sanitizers too.
#pragma once

#include <cstdlib>

#include <nk/log.h>

inline void quiet_log_unless_asked() {
    static const bool done = [] {
        if (std::getenv("NK_LOG_LEVEL") == nullptr)
            nk::log::set_level(-1);
        return true;
    }();
    (void)done;
}
