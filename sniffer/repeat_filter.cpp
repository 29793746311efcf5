#include "repeat_filter.h"

#include <algorithm>

namespace nk::sniffer {

bool RepeatFilter::is_repeat(const nk::sockutl::macaddr& mac, std::string_view text,
                             Clock::time_point now) {
    std::string key = mac.get_hash();
    key += '\n';
    key += text;
    const auto found = seen_.find(key);
    if (found != seen_.end() && now - found->second < window_)
        return true;
    if (found != seen_.end()) {
        found->second = now;
        return false;
    }
    if (capacity_ == 0)
        return false;
    if (seen_.size() >= capacity_)
        make_room(now);
    seen_.emplace(std::move(key), now);
    return false;
}

void RepeatFilter::make_room(Clock::time_point now) {
    for (auto it = seen_.begin(); it != seen_.end();) {
        it = now - it->second >= window_ ? seen_.erase(it) : std::next(it);
    }
    if (seen_.size() < capacity_)
        return;
    const auto oldest =
        std::min_element(seen_.begin(), seen_.end(),
                         [](const auto& a, const auto& b) { return a.second < b.second; });
    seen_.erase(oldest);
}

}  // namespace nk::sniffer
