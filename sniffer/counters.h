// What the sifter saw and what became of it, for its log.
#pragma once

#include <array>
#include <cstdint>

#include "frame.h"

namespace nk::sniffer {

struct Counters {
    std::uint64_t frames = 0;
    std::array<std::uint64_t, 7> skipped{};  // by Skip value
    std::uint64_t dhcp = 0;
    std::uint64_t user_agents = 0;
    std::uint64_t repeats = 0;  // user agents not sent again within the minute

    void skip(Skip why) { ++skipped[static_cast<std::size_t>(why)]; }
    std::uint64_t skipped_for(Skip why) const { return skipped[static_cast<std::size_t>(why)]; }
};

}  // namespace nk::sniffer
