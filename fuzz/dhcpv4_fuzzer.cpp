// The DHCPv4 reader on any bytes: nothing read outside them, a result only for a client request.
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "nkdhcpparser.h"
#include "quiet_log.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    quiet_log_unless_asked();
    nk::buffer_view message(data, static_cast<std::uint32_t>(size));
    const nk::sockutl::macaddr frame_mac("02:00:00:00:00:01");
    nk::DhcpResult result;
    if (nk::parse_dhcpv4_message(message, frame_mac, result)) {
        // A result always names a valid client and carries a fingerprint.
        if (!result.mac.is_valid() || result.fingerprint.version ||
            (result.fingerprint.option_list.empty() && result.fingerprint.vendor_class.empty()))
            std::abort();
    }
    return 0;
}
