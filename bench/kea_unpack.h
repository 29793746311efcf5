// The same packets through ISC Kea's libdhcp++, the DHCP library the readers are measured
// against. Kept apart so that Kea's headers reach only the file that needs them.
#pragma once

#include <cstddef>
#include <cstdint>

// Pkt4::unpack / Pkt6::unpack of one message; false when Kea refused it.
bool kea_unpack4(const std::uint8_t* data, std::size_t size);
bool kea_unpack6(const std::uint8_t* data, std::size_t size);
