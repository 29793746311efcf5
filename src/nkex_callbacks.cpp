#include "nkex_callbacks.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>

#include <nk/log.h>

#include "globals.h"

namespace {

// Checked in this order; the first exact match wins.
constexpr std::array<NkexRoute, 5> kRoutes = {{
    {"sifter_user_agent", handle_event_sifter_user_agent},
    {"sifter_dhcp_payload", handle_event_sifter_dhcp_payload},
    {"devmgmt:device_inventory", handle_event_device_inventory},
    {"request_device_id", handle_event_request_device_id},
    {"device_not_found", handle_event_device_not_found},
}};

}  // namespace

nkex_handler_t find_nkex_handler(std::string_view name) {
    for (const NkexRoute& route : kRoutes) {
        if (route.name == name)
            return route.handler;
    }
    return nullptr;
}

void nkex_msg_callback(const Message* message, void* /*context*/) {
    if (message == nullptr)
        return;
    NK_LOG(nk::log::TRACE, "nkex message: {}", *message);
    const std::string_view name(message->name, ::strnlen(message->name, sizeof(message->name)));
    const nkex_handler_t handler = find_nkex_handler(name);
    if (handler == nullptr) {
        NK_LOG(nk::log::WARN, "unhandled nkex message: {:s}", name);
        return;
    }
    handler(message);
}

void wake_main_loop() {
    const char byte = 0;
    while (::write(g_event_pipe[1], &byte, 1) < 0 && errno == EINTR) {
    }
}

// The handlers validate and queue once the inventory they feed exists.
void handle_event_sifter_user_agent(const Message* /*message*/) {}
void handle_event_sifter_dhcp_payload(const Message* /*message*/) {}
void handle_event_device_inventory(const Message* /*message*/) {}
void handle_event_request_device_id(const Message* /*message*/) {}
void handle_event_device_not_found(const Message* /*message*/) {}
