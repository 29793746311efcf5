// The sifter's frame decoder and what it makes of a frame, on any bytes: nothing read outside
// them, and every event it makes is JSON that round-trips with the fields the daemon reads.
#include <jansson.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <optional>

#include <nk/json.h>
#include <nk/util.h>

#include "quiet_log.h"
#include "sighting.h"

namespace {

void check(const nk::sniffer::Sighting& sighting) {
    const nk::json_ptr json(
        json_loadb(sighting.event.payload.data(), sighting.event.payload.size(), 0, nullptr));
    if (!json || !sighting.mac.is_valid())
        std::abort();
    if (sighting.kind == nk::sniffer::Sighting::Kind::Dhcp) {
        const char* raw = nk::json_string_member(json.get(), "raw_payload");
        const std::optional<std::string> udp = nk::base64_decode(raw ? raw : "");
        // The UDP header and the message it announces, whole.
        if (!udp || udp->size() < 8 ||
            (static_cast<std::uint8_t>((*udp)[4]) << 8 | static_cast<std::uint8_t>((*udp)[5])) !=
                static_cast<int>(udp->size()))
            std::abort();
    } else if (nk::json_string_member(json.get(), "user_agent") == nullptr ||
               sighting.user_agent.empty()) {
        std::abort();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    quiet_log_unless_asked();
    std::optional<nk::sniffer::Sighting> sighting;
    if (nk::sniffer::sight(data, size, "br-lan", sighting) == nk::sniffer::Skip::None)
        check(*sighting);
    return 0;
}
