// Routing of bus messages by exact event name.
#include <gtest/gtest.h>

#include <cstring>

#include "bus_event_handlers.h"

namespace {

// That every subscribed event reaches its handler is checked end to end by the event handler
// tests; a name is matched whole.
TEST(BusDispatch, NearMissesOfASubscribedNameHaveNoHandler) {
    for (const char* name : {"Request_device_id", "request_device_id2", "request_device", "",
                             "sifter_user_agent ", "devmgmt:device_inventory/x"}) {
        EXPECT_EQ(find_nkex_handler(name), nullptr) << name;
    }
}

TEST(BusDispatch, UnterminatedNameIsNotReadPastItsField) {
    Message m{};
    std::memset(m.name, 'x', sizeof(m.name));
    nkex_msg_callback(&m, nullptr);  // ASan catches an over-read
    nkex_msg_callback(nullptr, nullptr);
}

}  // namespace
