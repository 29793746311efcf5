#include "lease_event.h"

#include <jansson.h>

#include <cctype>

#include <nk/json.h>

#include "lease.h"

namespace nk::collector {

namespace {

// Option 12 and option 60 hold at most 255 bytes.
constexpr std::size_t kMaxText = 255;

std::optional<std::string> plain_hex(std::string_view text) {
    if (text.size() % 2 != 0 || text.size() > 2 * kMaxText)
        return std::nullopt;
    std::string bytes;
    for (std::size_t at = 0; at < text.size(); at += 2) {
        int value = 0;
        for (const char c : text.substr(at, 2)) {
            if (!std::isxdigit(static_cast<unsigned char>(c)))
                return std::nullopt;
            const int lower = std::tolower(static_cast<unsigned char>(c));
            value = value * 16 + (lower <= '9' ? lower - '0' : lower - 'a' + 10);
        }
        bytes.push_back(static_cast<char>(value));
    }
    return bytes;
}

// A member that must be a string when present; nullopt when absent or empty.
std::optional<std::string_view> text_of(const json_t* object, const char* key, bool& bad) {
    const json_t* value = json_object_get(object, key);
    if (value == nullptr)
        return std::nullopt;
    if (!json_is_string(value)) {
        bad = true;
        return std::nullopt;
    }
    const std::string_view text(json_string_value(value), json_string_length(value));
    return text.empty() ? std::nullopt : std::optional<std::string_view>(text);
}

std::optional<LeaseEvent::Action> action_of(std::string_view text) {
    if (text == "add")
        return LeaseEvent::Action::Add;
    if (text == "old")
        return LeaseEvent::Action::Old;
    if (text == "del")
        return LeaseEvent::Action::Del;
    return std::nullopt;
}

// The reason the identity fields are not an event's, or empty.
std::string read_ids(const json_t* json, LeaseEvent& event) {
    bool bad = false;
    const auto mac = text_of(json, "mac", bad);
    const auto duid = text_of(json, "duid", bad);
    const auto client_id = text_of(json, "client_id", bad);
    if (bad)
        return "a field that is not text";
    if (mac) {
        event.mac = sockutl::macaddr(std::string(*mac));
        if (!event.mac.is_valid())
            return "bad MAC address";
    }
    if (event.ip.is_v4() && !event.mac.is_valid())
        return "a DHCPv4 event without a MAC";
    if (event.ip.is_v6()) {
        const std::optional<std::string> bytes = duid ? hex_bytes(*duid) : std::nullopt;
        if (!bytes)
            return "a DHCPv6 event without a DUID";
        event.duid = *bytes;
    }
    if (client_id) {
        const std::optional<std::string> bytes = hex_bytes(*client_id);
        if (!bytes)
            return "bad client identifier";
        event.client_id = *bytes;
    }
    return {};
}

// The reason the client's own words are not readable, or empty.
std::string read_request(const json_t* json, LeaseEvent& event) {
    bool bad = false;
    const auto options = text_of(json, "options", bad);
    const auto vendor = text_of(json, "vendor_hex", bad);
    const auto host = text_of(json, "host_hex", bad);
    if (bad)
        return "a field that is not text";
    if (options) {
        if (!is_option_list(std::string(*options)))
            return "bad requested options";
        event.fingerprint.options = std::string(*options);
    }
    const std::optional<std::string> none("");
    const std::optional<std::string> vendor_bytes = vendor ? plain_hex(*vendor) : none;
    const std::optional<std::string> host_bytes = host ? plain_hex(*host) : none;
    if (!vendor_bytes || !host_bytes)
        return "bad hex text";
    event.fingerprint.vendor = *vendor_bytes;
    event.host = *host_bytes;
    return {};
}

}  // namespace

std::optional<LeaseEvent> read_lease_event(std::string_view line, std::string& why) {
    if (line.size() > kMaxLeaseEventLine) {
        why = "longer than " + std::to_string(kMaxLeaseEventLine) + " bytes";
        return std::nullopt;
    }
    const nk::json_ptr json(json_loadb(line.data(), line.size(), JSON_REJECT_DUPLICATES, nullptr));
    if (!json_is_object(json.get())) {
        why = "not a JSON object";
        return std::nullopt;
    }
    bool bad = false;
    const auto action_text = text_of(json.get(), "event", bad);
    const auto ip = text_of(json.get(), "ip", bad);
    const std::optional<LeaseEvent::Action> action =
        action_text ? action_of(*action_text) : std::nullopt;
    if (!action) {
        why = "no add, old or del event";
        return std::nullopt;
    }
    LeaseEvent event;
    event.action = *action;
    if (ip)
        event.ip = sockutl::address(*ip);
    if (!event.ip.is_v4_or_v6()) {
        why = "bad IP address";
        return std::nullopt;
    }
    why = read_ids(json.get(), event);
    if (why.empty())
        why = read_request(json.get(), event);
    if (!why.empty())
        return std::nullopt;
    return event;
}

}  // namespace nk::collector
