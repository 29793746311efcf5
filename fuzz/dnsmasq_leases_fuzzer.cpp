// dnsmasq's lease file as the collector reads it, whatever the file holds.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "dnsmasq_leases.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    nk::collector::looks_like_dnsmasq(text);
    const nk::collector::LeaseFile file = nk::collector::read_dnsmasq_leases(text, 1795400000);
    // A lease is an IPv4 address with a usable MAC, or an IPv6 one with none.
    for (const nk::collector::Lease& lease : file.leases) {
        if (lease.ip.is_v4() != lease.mac.is_valid() || !lease.ip.is_v4_or_v6())
            __builtin_trap();
        nk::collector::duid_mac(lease.client_id);
        nk::collector::client_identity(lease.client_id);
    }
    return 0;
}
