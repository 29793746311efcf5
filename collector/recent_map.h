// A map that keeps its most recently written entries: the oldest goes when a new one would
// pass the bound, so that what the LAN sends cannot grow the collector's memory.
#pragma once

#include <cstdint>
#include <map>
#include <utility>

namespace nk::collector {

template <typename Key, typename Value>
class RecentMap {
public:
    explicit RecentMap(std::size_t capacity) : capacity_(capacity) {}

    // The entry of `key`, made if needed, now the most recent.
    Value& touch(const Key& key) {
        auto it = entries_.find(key);
        if (it != entries_.end()) {
            order_.erase(it->second.second);
        } else {
            if (entries_.size() >= capacity_ && !order_.empty()) {
                entries_.erase(order_.begin()->second);
                order_.erase(order_.begin());
            }
            it = entries_.emplace(key, std::make_pair(Value{}, std::uint64_t{0})).first;
        }
        it->second.second = ++sequence_;
        order_.emplace(sequence_, key);
        return it->second.first;
    }

    const Value* find(const Key& key) const {
        const auto it = entries_.find(key);
        return it == entries_.end() ? nullptr : &it->second.first;
    }

    void erase(const Key& key) {
        const auto it = entries_.find(key);
        if (it == entries_.end())
            return;
        order_.erase(it->second.second);
        entries_.erase(it);
    }

    std::size_t size() const { return entries_.size(); }

private:
    std::size_t capacity_;
    std::uint64_t sequence_ = 0;
    std::map<Key, std::pair<Value, std::uint64_t>> entries_;  // value, sequence
    std::map<std::uint64_t, Key> order_;                      // sequence to key, oldest first
};

}  // namespace nk::collector
