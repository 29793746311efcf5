// A bounded, thread-safe multimap whose values may be evicted once old enough, and the records
// of additional-info submissions kept in it.
#pragma once

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <mutex>
#include <unordered_map>
#include <vector>

#include <nk/log.h>
#include <nk/sockutl.h>

namespace nk {

// Seconds since the epoch for the insertion stamps. The cache takes its clock as a template
// parameter (anything with a static now()) so that tests can pin the time instead of waiting.
struct system_clock {
    static std::time_t now() { return std::time(nullptr); }
};

// Keys hash with std::hash unless a cheaper rule is given below.
template <typename K>
struct cache_hash : std::hash<K> {};

// MAC keys: the six bytes, each shifted left by its index, exclusive-or'ed together.
template <>
struct cache_hash<sockutl::macaddr> {
    std::size_t operator()(const sockutl::macaddr& mac) const {
        std::size_t hash = 0;
        for (std::size_t i = 0; i < mac.bytes().size(); ++i)
            hash ^= static_cast<std::size_t>(mac.bytes()[i]) << i;
        return hash;
    }
};

template <typename K, typename V, typename Clock = system_clock>
class Cache {
public:
    struct Value {
        V value;
        std::time_t time;  // insertion, by Clock
    };
    using list = std::vector<Value>;
    using map_type = std::unordered_map<K, list, cache_hash<K>>;

    Cache(std::uint32_t max_size, std::int32_t expiry) : max_size_(max_size), expiry_(expiry) {}

    bool add(const K& key, const V& value) {
        const std::lock_guard lock(mutex_);
        if (!make_space())
            return false;
        map_[key].push_back(Value{value, Clock::now()});
        ++size_;
        return true;
    }

    bool exists(const K& key, const V& value) const {
        const std::lock_guard lock(mutex_);
        const auto it = map_.find(key);
        if (it == map_.end())
            return false;
        return std::any_of(it->second.begin(), it->second.end(),
                           [&value](const Value& v) { return v.value == value; });
    }

    // Number of values held for the key.
    std::size_t count(const K& key) const {
        const std::lock_guard lock(mutex_);
        const auto it = map_.find(key);
        return it == map_.end() ? 0 : it->second.size();
    }

    // Applies `mutator` to every value of the key that `pred` accepts; stamps stay as they were.
    template <typename Pred, typename Mutator>
    void update(const K& key, Pred pred, Mutator mutator) {
        const std::lock_guard lock(mutex_);
        const auto it = map_.find(key);
        if (it == map_.end()) {
            NK_LOG(nk::log::DEBUG, "Key not found");
            return;
        }
        for (Value& v : it->second) {
            if (pred(static_cast<const V&>(v.value)))
                mutator(v.value);
        }
    }

    // Copies of the values `pred` accepts, by key; keys without a match are left out.
    template <typename Pred>
    map_type get(Pred pred) const {
        const std::lock_guard lock(mutex_);
        map_type out;
        for (const auto& [key, values] : map_) {
            for (const Value& v : values) {
                if (pred(v.value))
                    out[key].push_back(v);
            }
        }
        return out;
    }

    list remove(const K& key) {
        const std::lock_guard lock(mutex_);
        const auto it = map_.find(key);
        if (it == map_.end())
            return {};
        list values = std::move(it->second);
        map_.erase(it);
        size_ -= static_cast<std::uint32_t>(values.size());
        return values;
    }

    // Old values go only when room is needed, so a cache that never fills keeps them all.
    bool make_space() {
        const std::lock_guard lock(mutex_);
        if (max_size_ > size_)
            return true;
        remove_expired();
        if (max_size_ > size_)
            return true;
        NK_LOG(nk::log::WARN, "Could not add entry in cache. Cache is full");
        return false;
    }

    void remove_expired() {
        const std::lock_guard lock(mutex_);
        const std::time_t now = Clock::now();
        std::size_t total = 0;
        for (auto it = map_.begin(); it != map_.end();) {
            list& values = it->second;
            values.erase(
                std::remove_if(values.begin(), values.end(),
                               [this, now](const Value& v) { return now - v.time >= expiry_; }),
                values.end());
            total += values.size();
            it = values.empty() ? map_.erase(it) : std::next(it);
        }
        size_ = static_cast<std::uint32_t>(total);
    }

    std::uint32_t size() const { return size_; }
    std::uint32_t max_size() const { return max_size_; }

private:
    std::atomic<std::uint32_t> max_size_;
    std::atomic<std::uint32_t> size_{0};
    const std::int32_t expiry_;
    map_type map_;
    // Recursive: add() makes space, which evicts, each under the lock.
    mutable std::recursive_mutex mutex_;
};

// Submission states of an AdditionalInfo record.
enum SubmissionState : std::int32_t {
    kSubmissionSent = 0,      // handed to the cloud, no answer yet
    kSubmissionFailed = 1,    // not sent or refused; retried
    kSubmissionDeferred = 2,  // the bus answered status 3; retried with the shorter cap
    kSubmissionOk = 3,        // accepted; never resent while cached
};

// One submission of additional info (a user agent, a DHCP fingerprint) and its retry state.
template <typename T>
struct AdditionalInfo {
    T info;
    std::int32_t state = kSubmissionSent;
    std::time_t last_attempt = 0;     // loop clock of the last attempt
    std::int32_t retry_interval = 0;  // seconds before the next retry

    // The same submission whatever its state.
    friend bool operator==(const AdditionalInfo& a, const AdditionalInfo& b) {
        return a.info == b.info;
    }
    friend bool operator!=(const AdditionalInfo& a, const AdditionalInfo& b) { return !(a == b); }
};

// A record of a first submission.
template <typename T>
AdditionalInfo<T> new_submission(const T& info, std::int32_t state, std::time_t now,
                                 std::int32_t default_interval) {
    return AdditionalInfo<T>{info, state, now, default_interval};
}

// Failed or deferred, and its wait is over.
struct due_for_retry {
    std::time_t now;
    template <typename T>
    bool operator()(const AdditionalInfo<T>& record) const {
        const bool retried =
            record.state == kSubmissionFailed || record.state == kSubmissionDeferred;
        return retried && record.last_attempt + record.retry_interval < now;
    }
};

// The cloud's answer to a submission: only the state changes.
struct set_submission_state {
    std::int32_t state;
    template <typename T>
    void operator()(AdditionalInfo<T>& record) const {
        record.state = state;
    }
};

// The same info submitted again: stamps the attempt and doubles the wait, capped by the state
// the record had before (a deferred one is retried sooner).
struct resubmitted {
    static constexpr std::int64_t kDeferredCap = 600;
    static constexpr std::int64_t kCap = 3600;

    std::int32_t state;
    std::time_t now;
    template <typename T>
    void operator()(AdditionalInfo<T>& record) const {
        const std::int64_t cap = record.state == kSubmissionDeferred ? kDeferredCap : kCap;
        record.state = state;
        record.last_attempt = now;
        record.retry_interval = static_cast<std::int32_t>(
            std::min<std::int64_t>(std::int64_t{record.retry_interval} * 2, cap));
    }
};

// Forgets every listed MAC, holding `mutex` (the cache's outer lock) throughout.
template <typename Macs, typename T, typename Clock>
void remove_macs_from_cache(const Macs& macs,
                            Cache<sockutl::macaddr, AdditionalInfo<T>, Clock>& cache,
                            std::mutex& mutex) {
    const std::lock_guard lock(mutex);
    for (const sockutl::macaddr& mac : macs)
        cache.remove(mac);
}

}  // namespace nk
