// ISC dhcpd's lease journal as the collector reads it, whatever the file holds.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "isc_leases.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    nk::collector::looks_like_isc(text);
    const nk::collector::LeaseFile file = nk::collector::read_isc_leases(text, 1795400000);
    // Every lease kept is an IPv4 address with a usable MAC.
    for (const nk::collector::Lease& lease : file.leases) {
        if (!lease.ip.is_v4() || !lease.mac.is_valid())
            __builtin_trap();
    }
    return 0;
}
