// Routing of bus messages by exact event name.
#include <gtest/gtest.h>

#include <cstring>

#include "nkex_callbacks.h"

namespace {

TEST(NkexDispatch, EveryEventReachesItsOwnHandler) {
    EXPECT_EQ(find_nkex_handler("sifter_user_agent"), &handle_event_sifter_user_agent);
    EXPECT_EQ(find_nkex_handler("sifter_dhcp_payload"), &handle_event_sifter_dhcp_payload);
    EXPECT_EQ(find_nkex_handler("devmgmt:device_inventory"), &handle_event_device_inventory);
    EXPECT_EQ(find_nkex_handler("request_device_id"), &handle_event_request_device_id);
    EXPECT_EQ(find_nkex_handler("device_not_found"), &handle_event_device_not_found);
}

TEST(NkexDispatch, NearMissesAreUnhandled) {
    for (const char* name : {"Request_device_id", "request_device_id2", "request_device", "",
                             "sifter_user_agent ", "devmgmt:device_inventory/x"}) {
        EXPECT_EQ(find_nkex_handler(name), nullptr) << name;
    }
}

TEST(NkexDispatch, EverySubscribedEventHasAHandler) {
    for (const char* name : kSubscribedEvents)
        EXPECT_NE(find_nkex_handler(name), nullptr) << name;
}

TEST(NkexDispatch, UnterminatedNameIsNotReadPastItsField) {
    Message m{};
    std::memset(m.name, 'x', sizeof(m.name));
    nkex_msg_callback(&m, nullptr);  // ASan catches an over-read
    nkex_msg_callback(nullptr, nullptr);
}

}  // namespace
