#include "waiting_answers.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>

#include <nk/nkex.h>

#include "daemon_state.h"
#include "device_id_answers.h"
#include "stored_answers.h"

namespace {

// Written by the bus thread, opened and closed by the main loop around the bus's lifetime.
std::atomic<int> s_wake{-1};
bool s_active = false;  // main loop only

void answer_queued_requests(void* /*context*/) {
    answer_device_id_requests_now();
}

}  // namespace

void answer_device_id_requests_now() {
    std::uint64_t count = 0;
    while (::read(s_wake.load(), &count, sizeof count) > 0) {
    }
    // The inventory is the loop's own; this runs on the loop's thread, inside its wait or
    // between its turns.
    if (s_active && leases_received())
        process_device_id_requests();
    else if (stored_ids_known())
        answer_from_stored_ids();
}

void answer_between_registrations() {
    if (!s_active || !leases_received())
        return;
    std::uint64_t count = 0;
    if (::read(s_wake.load(), &count, sizeof count) > 0)
        process_device_id_requests();
}

int device_id_wake_fd() {
    return s_wake.load();
}

bool open_device_id_wake() {
    s_wake = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    return s_wake >= 0;
}

void close_device_id_wake() {
    const int fd = s_wake.exchange(-1);
    if (fd >= 0)
        ::close(fd);
}

void signal_device_id_request() {
    const int fd = s_wake.load();
    const std::uint64_t one = 1;
    if (fd >= 0) [[maybe_unused]]
        const ssize_t n = ::write(fd, &one, sizeof one);
}

void serve_device_ids_while_waiting() {
    nkex_set_wait_hook(g_nkex, s_wake.load(), answer_queued_requests, nullptr);
}

void set_answering_while_waiting(bool active) {
    s_active = active;
}
