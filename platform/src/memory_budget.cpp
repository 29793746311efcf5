#include "nk/memory_budget.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdio>

#include "nk/io.h"

#ifdef __GLIBC__
#include <malloc.h>
#endif

namespace nk::memory {

namespace {

#ifdef __GLIBC__
// Blocks at least this large are mapped apart. Fixed: glibc would otherwise raise it after a
// large block is freed, and put the next burst's queues on the heap for good.
constexpr int kMmapThreshold = 128 * 1024;
// Growth worth a trim.
constexpr std::size_t kWorthReleasing = 128 * 1024;

std::size_t resident_bytes() {
    const nk::io::unique_fd fd(::open("/proc/self/statm", O_RDONLY | O_CLOEXEC));
    char text[128] = {};
    if (!fd || ::read(fd.get(), text, sizeof(text) - 1) <= 0)
        return 0;
    unsigned long size = 0;
    unsigned long pages = 0;
    if (std::sscanf(text, "%lu %lu", &size, &pages) != 2)
        return 0;
    return pages * static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
}

// What the last trim left, the free heap following it down since: freed memory shows as a
// resident set that grew, or as free heap that grew again (a trim in the middle of a burst
// gave back little; what the burst frees later is caught by the second).
struct Baseline {
    std::size_t resident = 0;
    std::size_t free_heap = 0;
};
Baseline s_after_release;  // one thread calls release_freed()
#endif

}  // namespace

void set_budget() {
#ifdef __GLIBC__
    // A thread's own arena keeps what it freed for itself; the bus threads allocate little.
    ::mallopt(M_ARENA_MAX, 1);
    ::mallopt(M_MMAP_THRESHOLD, kMmapThreshold);
#endif
}

void release_freed() {
#ifdef __GLIBC__
    const std::size_t resident = resident_bytes();
    const std::size_t free_heap = ::mallinfo2().fordblks;
    Baseline& base = s_after_release;
    base.free_heap = std::min(base.free_heap, free_heap);
    if (resident < base.resident + kWorthReleasing && free_heap < base.free_heap + kWorthReleasing)
        return;
    ::malloc_trim(0);
    base = {resident_bytes(), ::mallinfo2().fordblks};
#endif
}

}  // namespace nk::memory
