// Bounds of the queues between the bus thread and the main loop. While the loop is busy or not
// yet active, what the LAN and the other daemons send waits here; the bounds keep the memory it
// takes bounded. Requests for device ids are small (about 48 bytes) and each one must be
// answered, so theirs is the largest bound.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <mutex>

inline constexpr std::size_t kMaxQueuedDeviceIdRequests = 16384;
inline constexpr std::size_t kMaxQueuedInventoryEvents = 4096;  // removed, new, changed each
inline constexpr std::size_t kMaxQueuedDhcpResults = 1024;
inline constexpr std::size_t kMaxQueuedUserAgents = 1024;  // each up to 2 KiB

// Counts the records a full queue refused and says so at most once every 10 s, with the count.
class QueueOverflow {
public:
    QueueOverflow(const char* queue, std::size_t limit) : queue_(queue), limit_(limit) {}
    void refused();

private:
    static constexpr std::chrono::seconds kQuiet{10};
    std::mutex mutex_;
    const char* queue_;
    std::size_t limit_;
    std::uint64_t total_ = 0;
    std::uint64_t unreported_ = 0;
    std::chrono::steady_clock::time_point last_line_{};
    bool reported_ = false;
};
