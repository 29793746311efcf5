#include "bus_event_handlers.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include <fmt/ranges.h>
#include <nk/buffer_view.h>
#include <nk/json.h>
#include <nk/log.h>
#include <nk/util.h>

#include "daemon_state.h"
#include "device_identity.h"
#include "device_sync.h"
#include "event_pipe.h"
#include "network_info.h"
#include "nkdhcpparser.h"
#include "queue_limits.h"
#include "user_agents.h"
#include "waiting_answers.h"

namespace {

// Checked in this order; the first exact match wins.
constexpr std::array<NkexRoute, 5> kRoutes = {{
    {"sifter_user_agent", handle_event_sifter_user_agent},
    {"sifter_dhcp_payload", handle_event_sifter_dhcp_payload},
    {"devmgmt:device_inventory", handle_event_device_inventory},
    {"request_device_id", handle_event_request_device_id},
    {"device_not_found", handle_event_device_not_found},
}};

constexpr std::size_t kUdpHeaderSize = 8;
// Larger than any UDP datagram: not a packet the sifter could have seen.
constexpr std::size_t kMaxDhcpPayload = std::numeric_limits<std::uint16_t>::max();
// Longer user agents are not forwarded: each one is cached per MAC until it expires.
constexpr std::size_t kMaxUserAgentLength = 2048;
// Log lines that quote a payload show at most this much of it.
constexpr std::size_t kQuotedPayloadMax = 1024;

// The payload as JSON, released when the handler returns; null when it does not parse.
nk::json_ptr parse_message(const Message* message) {
    json_error_t error;
    return nk::json_ptr(json_loadb(message->data ? message->data : "", message->length, 0, &error));
}

std::string_view payload_text(const Message* message) {
    return std::string_view(message->data ? message->data : "", message->length);
}

// A payload for a log line: a huge one is cut, with its size said.
std::string quoted(std::string_view text) {
    if (text.size() <= kQuotedPayloadMax)
        return std::string(text);
    return fmt::format("{}... ({} bytes)", text.substr(0, kQuotedPayloadMax), text.size());
}

// Appends under the queue's mutex and wakes the loop while still holding it. False, and
// counted, when the queue is full.
template <typename T>
bool enqueue(std::vector<T>& queue, std::mutex& mutex, std::size_t limit, QueueOverflow& overflow,
             T record) {
    {
        const std::lock_guard lock(mutex);
        if (queue.size() < limit) {
            queue.push_back(std::move(record));
            wake_main_loop();
            return true;
        }
    }
    overflow.refused();
    return false;
}

QueueOverflow g_removed_overflow("removed devices", kMaxQueuedInventoryEvents);
QueueOverflow g_new_overflow("new devices", kMaxQueuedInventoryEvents);
QueueOverflow g_changed_overflow("changed devices", kMaxQueuedInventoryEvents);
QueueOverflow g_dhcp_overflow("DHCP results", kMaxQueuedDhcpResults);
QueueOverflow g_devid_overflow("device_id requests", kMaxQueuedDeviceIdRequests);

// 4 unless "version" says otherwise: true is 1 and false 0, so a boolean always means DHCPv6.
json_int_t ip_version(const json_t* version) {
    if (json_is_true(version))
        return 1;
    if (json_is_false(version))
        return 0;
    if (json_is_integer(version))
        return json_integer_value(version);
    return 4;
}

bool parse_dhcp(bool v4, nk::buffer_view& message, const macaddr& source_mac,
                nk::DhcpResult& result) {
    // A vendor class item whose length field is cut to one byte makes the DHCPv6 reader throw;
    // that is where it ends, on the bus thread, and not in the bus library.
    try {
        return v4 ? nk::parse_dhcpv4_message(message, source_mac, result)
                  : nk::parse_dhcpv6_message(message, source_mac, result);
    } catch (const std::bad_optional_access&) {
        NK_LOG(nk::log::ERROR, "Malformed DHCPv6 message from {}: truncated vendor class item",
               source_mac);
        return false;
    }
}

// The scan levels follow from other fields: the cloud recomputes them when those change.
struct ChangedFields {
    std::vector<std::string> kept;
    bool scan_level = false;
    bool va_scan_level = false;
    bool is_additional = false;

    void add(const std::string& name) {
        if (std::find(g_cloud_fields.begin(), g_cloud_fields.end(), name) != g_cloud_fields.end())
            kept.push_back(name);
        scan_level |= name == "apps" || name == "device_type";
        va_scan_level |= name == "capabilities" || name == "device_type";
        is_additional |= name == "box_detected_name";
    }
    // A derived field already named is not asked for twice.
    void finish() {
        for (const auto& [noted, name] :
             {std::pair{scan_level, "scan_level"}, std::pair{va_scan_level, "va_scan_level"}}) {
            if (noted && std::find(kept.begin(), kept.end(), name) == kept.end())
                kept.emplace_back(name);
        }
    }
};

void handle_device_removed(const json_t* params) {
    {
        const std::lock_guard lock(g_devices_loaded_mutex);
        if (!g_cloud_devices_loaded) {
            // The coming load finds the device gone; only tell the loop a removal happened.
            g_device_removed_flag = true;
            return;
        }
    }
    const char* device_id = nk::json_string_member(params, "device_id");
    if (device_id != nullptr)
        enqueue(g_removed_devices, g_removed_devices_mutex, kMaxQueuedInventoryEvents,
                g_removed_overflow, std::string(device_id));
}

void handle_new_device(const json_t* params) {
    const char* device_id = nk::json_string_member(params, "device_id");
    if (device_id != nullptr)
        enqueue(g_new_devices, g_new_devices_mutex, kMaxQueuedInventoryEvents, g_new_overflow,
                std::string(device_id));
}

}  // namespace

nkex_handler_t find_nkex_handler(std::string_view name) {
    for (const NkexRoute& route : kRoutes) {
        if (route.name == name)
            return route.handler;
    }
    return nullptr;
}

void nkex_msg_callback(const Message* message, void* /*context*/) {
    if (message == nullptr)
        return;
    NK_LOG(nk::log::TRACE, "nkex message: {}", *message);
    const std::string_view name(message->name, ::strnlen(message->name, sizeof(message->name)));
    const nkex_handler_t handler = find_nkex_handler(name);
    if (handler == nullptr) {
        NK_LOG(nk::log::WARN, "unhandled nkex message: {:s}", name);
        return;
    }
    handler(message);
}

void handle_event_sifter_user_agent(const Message* message) {
    const nk::json_ptr json = parse_message(message);
    if (!json)
        return;
    const char* netif = nk::json_string_member(json.get(), "src_netif");
    if (netif == nullptr) {
        NK_LOG(nk::log::ERROR, "src_netif missing from sifter_user_agent JSON");
        return;
    }
    if (is_wan(netif)) {
        NK_LOG(nk::log::INFO, "Skipping user agent received from wan");
        return;
    }
    const char* ip = nk::json_string_member(json.get(), "src_ip");
    const char* mac = nk::json_string_member(json.get(), "src_mac");
    const char* user_agent = nk::json_string_member(json.get(), "user_agent");
    if (ip == nullptr || mac == nullptr || user_agent == nullptr || *user_agent == '\0')
        return;
    const std::size_t length = std::strlen(user_agent);
    if (length > kMaxUserAgentLength) {
        NK_LOG(nk::log::WARN, "user agent of {:d} bytes from mac {:s} dropped (limit {:d})", length,
               mac, kMaxUserAgentLength);
        return;
    }
    if (macaddr(mac).is_valid() && !is_on_box(mac) && is_in_subnet(ip)) {
        save_user_agent(ip, mac, user_agent);
    } else {
        NK_LOG(nk::log::WARN, "Invalid user_agent parameters: src_mac={:s}, src_ip={:s}", mac, ip);
    }
}

void handle_event_sifter_dhcp_payload(const Message* message) {
    NK_LOG(nk::log::DEBUG, "Received dhcp payload message");
    const nk::json_ptr json = parse_message(message);
    if (!json) {
        NK_LOG(nk::log::ERROR, "Failed to parse it into JSON");
        return;
    }
    const char* netif = nk::json_string_member(json.get(), "netif");
    if (netif == nullptr) {
        NK_LOG(nk::log::ERROR, "netif missing from dhcp_payload JSON");
        return;
    }
    if (is_wan(netif)) {
        NK_LOG(nk::log::INFO, "Skipping DHCP received from wan");
        return;
    }
    const char* source_text = nk::json_string_member(json.get(), "source_mac");
    const macaddr source_mac(source_text ? source_text : "");
    if (!source_mac.is_valid()) {
        NK_LOG(nk::log::ERROR, "Failed to extract source_mac");
        return;
    }
    const bool v4 = ip_version(json_object_get(json.get(), "version")) == 4;
    if (is_on_box(source_text)) {
        NK_LOG(nk::log::DEBUG, "Skipping DHCP with BOX src_mac {:s}", source_text);
        return;
    }
    const char* raw = nk::json_string_member(json.get(), "raw_payload");
    if (raw == nullptr) {
        NK_LOG(nk::log::ERROR, "Failed to extract raw_payload");
        return;
    }
    const std::string_view encoded(raw);
    if (encoded.size() > 4 * ((kMaxDhcpPayload + 2) / 3)) {
        NK_LOG(nk::log::ERROR, "dhcp_payload of {:d} base64 bytes is larger than a UDP datagram",
               encoded.size());
        return;
    }
    const std::optional<std::string> decoded = nk::base64_decode(encoded);
    if (!decoded || decoded->empty()) {
        NK_LOG(nk::log::ERROR, "Failed to base64 decode raw value of dhcp_payload {:s}",
               quoted(encoded));
        return;
    }
    NK_LOG(nk::log::DEBUG, "Original payload {:s}", quoted(encoded));
    if (decoded->size() < kUdpHeaderSize) {
        NK_LOG(nk::log::ERROR, "Failed to skip UDP header");
        return;
    }
    nk::buffer_view dhcp(decoded->data() + kUdpHeaderSize,
                         static_cast<std::uint32_t>(decoded->size() - kUdpHeaderSize));
    nk::DhcpResult result;
    if (parse_dhcp(v4, dhcp, source_mac, result))
        enqueue(g_dhcp_results, g_dhcp_results_mutex, kMaxQueuedDhcpResults, g_dhcp_overflow,
                std::move(result));
}

void handle_event_device_inventory(const Message* message) {
    const nk::json_ptr json = parse_message(message);
    const json_t* fields = json_object_get(json.get(), "app_fields");
    const char* event = nk::json_string_member(fields, "event");
    const json_t* params = json_object_get(fields, "event_params");
    if (event == nullptr || !json_is_object(params))
        return;
    NK_LOG(nk::log::DEBUG, "device event: {:s}", event);
    const std::string_view name(event);
    if (name == "device_removed") {
        handle_device_removed(params);
    } else if (name == "device_info_changed") {
        handle_device_info_changed(params);
    } else if (name == "new_device") {
        handle_new_device(params);
    }
}

void handle_device_info_changed(const json_t* params) {
    const char* device_id = nk::json_string_member(params, "device_id");
    const json_t* names = json_object_get(params, "fields");
    if (device_id == nullptr || !json_is_array(names))
        return;
    ChangedFields changed;
    std::size_t index = 0;
    const json_t* name = nullptr;
    json_array_foreach(names, index, name) {
        if (json_is_string(name))
            changed.add(json_string_value(name));
    }
    changed.finish();
    if (changed.kept.empty())
        return;
    NK_LOG(nk::log::INFO, "Changed fields: {}, is_additional: {}", changed.kept,
           changed.is_additional);
    enqueue(g_changed_devices, g_changed_devices_mutex, kMaxQueuedInventoryEvents,
            g_changed_overflow,
            ChangedInfo{device_id, std::move(changed.kept), changed.is_additional});
}

void handle_event_request_device_id(const Message* message) {
    const nk::json_ptr json = parse_message(message);
    if (!json) {
        NK_LOG(nk::log::WARN, "Failed to parse message into a JSON: \"{}\"",
               quoted(payload_text(message)));
        return;
    }
    const char* mac = nk::json_string_member(json.get(), "mac");
    if (mac == nullptr) {
        nk::log::log_json(nk::log::ERROR, "mac not found in request_device_id: ", json.get());
        return;
    }
    const char* ip = nk::json_string_member(json.get(), "ip");
    if (ip == nullptr) {
        nk::log::log_json(nk::log::ERROR, "ip not found in request_device_id: ", json.get());
        return;
    }
    NK_LOG(nk::log::INFO, "mac={:s}, ip={:s}", mac, ip);
    DeviceIdRequest request{macaddr(mac), address(ip), message->id};
    // Refused: "none known" at once beats an answer that never comes.
    if (!enqueue(g_devid_requests, g_devid_requests_mutex, kMaxQueuedDeviceIdRequests,
                 g_devid_overflow, std::move(request))) {
        send_device_id_response(mac, "", message->id);
        return;
    }
    signal_device_id_request();
}

void handle_event_device_not_found(const Message* /*message*/) {
    NK_LOG(nk::log::INFO, "Received 'device_not_found'. list_devices will be called.");
    reset_devices_loaded();
}
