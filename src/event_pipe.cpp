#include "event_pipe.h"

#include <unistd.h>

#include <cerrno>

#include "daemon_state.h"

void wake_main_loop() {
    const char byte = 0;
    while (::write(g_event_pipe[1], &byte, 1) < 0 && errno == EINTR) {
    }
}
