// Handlers of the bus events and requests the daemon subscribes to. They run on the bus
// thread: they only validate, queue under the queue's mutex and wake the main loop.
#pragma once

#include <array>
#include <string_view>

#include <jansson.h>

#include <nk/nkex.h>

using nkex_handler_t = void (*)(const Message* message);

struct NkexRoute {
    std::string_view name;
    nkex_handler_t handler;
};

void handle_event_sifter_user_agent(const Message* message);
void handle_event_sifter_dhcp_payload(const Message* message);
void handle_event_device_inventory(const Message* message);
// The "device_info_changed" step of the inventory handler: `params` is its "event_params".
void handle_device_info_changed(const json_t* params);
void handle_event_request_device_id(const Message* message);
void handle_event_device_not_found(const Message* message);

// The names the daemon subscribes to, in subscription order.
inline constexpr std::array<const char*, 5> kSubscribedEvents = {
    "devmgmt:device_inventory", "sifter_user_agent", "sifter_dhcp_payload", "request_device_id",
    "device_not_found"};

// The handler of an event name (exact, case-sensitive), or null.
nkex_handler_t find_nkex_handler(std::string_view name);

// The bus library's message callback: routes by name, logs what nobody handles.
void nkex_msg_callback(const Message* message, void* context);
