#include "queue_limits.h"

#include <utility>

#include <nk/log.h>

void QueueOverflow::refused() {
    std::uint64_t count = 0;
    std::uint64_t total = 0;
    {
        const std::lock_guard lock(mutex_);
        ++total_;
        ++unreported_;
        const auto now = std::chrono::steady_clock::now();
        if (reported_ && now - last_line_ < kQuiet)
            return;
        reported_ = true;
        last_line_ = now;
        count = std::exchange(unreported_, 0);
        total = total_;
    }
    NK_LOG(nk::log::WARN, "{:s} queue full ({:d} waiting): {:d} refused ({:d} since start)", queue_,
           limit_, count, total);
}
