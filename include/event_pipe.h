// The main loop's wake-up: whoever queues work for the loop writes to g_event_pipe.
#pragma once

// One byte to the event pipe; safe from any thread.
void wake_main_loop();
