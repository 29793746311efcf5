// Remembers which user agent each MAC showed lately, so that a browser's hundred requests a
// minute become one event. The table is bounded: a LAN with more agents than it holds costs
// repeats, never memory.
#pragma once

#include <chrono>
#include <cstddef>
#include <string>
#include <string_view>
#include <unordered_map>

#include <nk/sockutl.h>

namespace nk::sniffer {

class RepeatFilter {
public:
    using Clock = std::chrono::steady_clock;

    explicit RepeatFilter(std::size_t capacity = 1024,
                          Clock::duration window = std::chrono::seconds(60))
        : capacity_(capacity), window_(window) {}

    // True when this MAC showed this text less than the window ago (the repeat is dropped);
    // otherwise the pair is remembered as seen now and false returned.
    bool is_repeat(const nk::sockutl::macaddr& mac, std::string_view text, Clock::time_point now);
    std::size_t size() const { return seen_.size(); }

private:
    // Makes room for one more: forgets the expired pairs, else the oldest one.
    void make_room(Clock::time_point now);

    std::size_t capacity_;
    Clock::duration window_;
    std::unordered_map<std::string, Clock::time_point> seen_;
};

}  // namespace nk::sniffer
