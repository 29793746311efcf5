// The lease script's lines as the collector reads them, whatever the file holds, and the
// identity rules on the clients they tell of.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "client_history.h"
#include "host_names.h"
#include "identity_rules.h"
#include "lease_event_log.h"
#include "quiet_log.h"

namespace {

using namespace nk::collector;

// Each client judged against those before it, as the resolver would.
void judge_in_turn(std::string_view text) {
    ClientHistory history;
    for (std::size_t at = 0, end = 0; (end = text.find('\n', at)) != std::string_view::npos;
         at = end + 1) {
        std::string why;
        const std::optional<LeaseEvent> event = read_lease_event(text.substr(at, end - at), why);
        if (!event) {
            if (why.empty())
                __builtin_trap();
            continue;
        }
        // The script's free text is one DHCP option's worth at most.
        if (event->host.size() > 255 || event->fingerprint.vendor.size() > 255 ||
            (event->ip.is_v4() && !event->mac.is_valid()))
            __builtin_trap();
        const std::string host = distinctive_name(event->host);
        const Sighting s{
            event->mac, {event->client_id, event->duid}, host, host, event->fingerprint, false};
        const Verdict v = judge(s, history, [](const nk::sockutl::macaddr& mac) {
            return mac.bytes()[5] % 2 == 0 ? Presence::Gone : Presence::Here;
        });
        if (v.kind == Verdict::Kind::Same && history.find(v.device) == nullptr)
            __builtin_trap();
        if (v.kind == Verdict::Kind::Same)
            history.add_alias(v.device, event->mac);
        else
            history.add(event->mac, 0);
        history.learn(v.kind == Verdict::Kind::Same ? v.device : event->mac,
                      {{client_identity(event->client_id)}, host, host, event->fingerprint}, 0);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    quiet_log_unless_asked();
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    LeaseEventLog log;
    if (log.take_lines(text) > size)
        __builtin_trap();
    judge_in_turn(text);
    return 0;
}
