// The allocator of a program on a router whose RAM a dozen daemons share: what a burst or a
// load takes goes back to the system once it is freed, rather than being kept for a next time
// that may never come.
#pragma once

namespace nk::memory {

// First thing in main, before any thread starts: every thread allocates from one arena, and
// large blocks get mappings of their own, returned as soon as they are freed.
void set_budget();

// Gives the pages of freed heap memory back to the system when the resident set or the free
// heap grew noticeably since the last time (a load, a burst of requests, a large message);
// costs a read of /proc/self/statm otherwise. For the periodic work of one thread.
void release_freed();

}  // namespace nk::memory
