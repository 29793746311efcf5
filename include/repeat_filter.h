// A full or read-only store fails every write until it recovers: a run of the same error is
// logged at its own level once and then only as detail, so that it does not bury the log.
#pragma once

#include <utility>

#include <nk/log.h>

class RepeatFilter {
public:
    // The level to log a failure with `err` at.
    int level_of(int err, int level) {
        return std::exchange(last_, err) == err ? nk::log::DEBUG : level;
    }
    // True when this success ends a run of failures.
    bool recovered() { return std::exchange(last_, 0) != 0; }

private:
    int last_ = 0;
};
