#include "kea_unpack.h"

#include <exception>

#include <dhcp/pkt4.h>
#include <dhcp/pkt6.h>

bool kea_unpack4(const std::uint8_t* data, std::size_t size) {
    try {
        isc::dhcp::Pkt4 packet(data, size);
        packet.unpack();
        return true;
    } catch (const std::exception&) {
        return false;
    }
}

bool kea_unpack6(const std::uint8_t* data, std::size_t size) {
    try {
        isc::dhcp::Pkt6 packet(data, size);
        packet.unpack();
        return true;
    } catch (const std::exception&) {
        return false;
    }
}
