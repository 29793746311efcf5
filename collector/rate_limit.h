// Bounds on what a chatty or hostile LAN can make the collector do: a token bucket, and a log
// line allowance that says how many lines it held back.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <string>

namespace nk::collector {

class TokenBucket {
public:
    using Clock = std::chrono::steady_clock;

    // `burst` tokens at most, one more every `period`.
    TokenBucket(int burst, Clock::duration period)
        : burst_(burst), period_(period), tokens_(burst), last_(Clock::now()) {}

    bool take(Clock::time_point now = Clock::now()) {
        refill(now);
        if (tokens_ == 0)
            return false;
        --tokens_;
        return true;
    }
    // When the next token comes (now when one is there).
    Clock::time_point next_token(Clock::time_point now = Clock::now()) {
        refill(now);
        return tokens_ > 0 ? now : last_ + period_;
    }

private:
    void refill(Clock::time_point now) {
        if (now <= last_)
            return;
        const auto gained = (now - last_) / period_;
        if (gained == 0)
            return;
        tokens_ = static_cast<int>(std::min<std::int64_t>(burst_, tokens_ + gained));
        last_ = tokens_ == burst_ ? now : last_ + gained * period_;
    }

    int burst_;
    Clock::duration period_;
    int tokens_;
    Clock::time_point last_;
};

// Lets through a few log lines a minute for one kind of fault; the next line let through
// says how many were held back meanwhile.
class LogAllowance {
public:
    explicit LogAllowance(int per_minute = 10)
        : bucket_(per_minute, std::chrono::duration_cast<TokenBucket::Clock::duration>(
                                  std::chrono::minutes(1)) /
                                  std::max(per_minute, 1)) {}

    // True when the line may be logged; `held` is then the number held back before it.
    bool allow(int& held) {
        if (!bucket_.take()) {
            ++held_;
            return false;
        }
        held = held_;
        held_ = 0;
        return true;
    }

private:
    TokenBucket bucket_;
    int held_ = 0;
};

// " (N like it held back)" for a line that follows held-back ones, else nothing.
inline std::string held_note(int held) {
    return held > 0 ? " (" + std::to_string(held) + " like it held back)" : std::string();
}

}  // namespace nk::collector
