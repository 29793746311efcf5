#include "utils.h"

#include <nk/log.h>
#include <nk/nkex.h>

#include "globals.h"

void send_clear_device_id_cache_message() {
    if (nkex_send_message(g_nkex, "clear_device_id_cache", "", 0) != 0) {
        NK_LOG(nk::log::WARN, "nkex send error");
    }
}
