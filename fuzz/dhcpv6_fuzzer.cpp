// The DHCPv6 reader on any bytes: nothing read outside them; the one exception it may raise is
// the one the bus handler catches.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <optional>

#include "nkdhcpparser.h"
#include "quiet_log.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    quiet_log_unless_asked();
    nk::buffer_view message(data, static_cast<std::uint32_t>(size));
    const nk::sockutl::macaddr frame_mac("02:00:00:00:00:01");
    nk::DhcpResult result;
    try {
        if (nk::parse_dhcpv6_message(message, frame_mac, result)) {
            // The result is always the frame's MAC, and never empty.
            const nk::DhcpFingerprint& fp = result.fingerprint;
            if (result.mac != frame_mac || !fp.version ||
                (fp.option_list.empty() && fp.vendor_class.empty() && result.hostname.empty()))
                std::abort();
        }
    } catch (const std::bad_optional_access&) {
    }
    return 0;
}
