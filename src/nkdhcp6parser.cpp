#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include <nk/log.h>
#include <nk/util.h>

#include "nkdhcpparser.h"

namespace nk {

namespace {

using sockutl::macaddr;

constexpr std::uint32_t kTransactionIdSize = 3;
constexpr std::uint32_t kOptionHeaderSize = 4;

enum OptionCode : std::uint16_t {
    kClientId = 1,
    kOptionRequest = 6,
    kElapsedTime = 8,
    kVendorClass = 16,
    kClientFqdn = 39,
};

enum DuidType : std::uint16_t { kDuidLlt = 1, kDuidLl = 3 };

// Client messages that carry what identifies the client; relays and servers are not read.
const std::map<unsigned char, std::string_view> kMessageTypeNames = {
    {1, "SOLICIT"},
    {3, "REQUEST"},
    {5, "RENEW"},
    {6, "REBIND"},
};

std::uint16_t from_network(std::uint16_t value) {
    return static_cast<std::uint16_t>((value >> 8) | (value << 8));
}

std::uint32_t from_network(std::uint32_t value) {
    return __builtin_bswap32(value);
}

std::optional<std::uint16_t> read16(buffer_view& view) {
    const std::optional<unsigned short> value = view.read<unsigned short>();
    if (!value)
        return std::nullopt;
    return from_network(*value);
}

// Trailing zero bytes dropped; the length is a byte, so a longer item is cut to its low 8 bits.
void append_text(std::string& out, const unsigned char* bytes, unsigned char length) {
    while (length > 0 && bytes[length - 1] == 0)
        --length;
    out.append(reinterpret_cast<const char*>(bytes), length);
}

std::optional<std::string_view> extract_message_type(buffer_view& message) {
    const std::optional<unsigned char> type = message.read<unsigned char>();
    if (!type) {
        NK_LOG(log::ERROR, "Missing DHCP Message Type");
        return std::nullopt;
    }
    const auto it = kMessageTypeNames.find(*type);
    if (it == kMessageTypeNames.end()) {
        NK_LOG(log::ERROR, "Invalid DHCP Message Type {:d}", *type);
        return std::nullopt;
    }
    return it->second;
}

// The next option's code and a view of its data alone, so no step can read past it.
std::optional<std::pair<std::uint16_t, buffer_view>> extract_option(buffer_view& message) {
    if (message.remaining() < kOptionHeaderSize) {
        NK_LOG(log::ERROR, "Invalid size {:d} for an option", message.remaining());
        return std::nullopt;
    }
    const std::uint16_t code = *read16(message);
    const std::uint16_t length = *read16(message);
    const std::optional<buffer_view> data = message.sub(length);
    if (!data) {
        NK_LOG(log::ERROR, "Invalid data after option code {:d}, of length {:d}", code, length);
        return std::nullopt;
    }
    NK_LOG(log::DEBUG, "Option: code={:d}, len={:d}", code, length);
    return std::make_pair(code, *data);
}

bool take_mac(buffer_view& option, DhcpResult& result) {
    result.mac = option;
    if (!result.mac.is_valid()) {
        NK_LOG(log::WARN, "{} is not a valid MAC address", result.mac);
        return false;
    }
    return true;
}

bool interpret_duid_llt(buffer_view& option, DhcpResult& result) {
    if (!option.readn<unsigned char>(6))  // hardware type and time
        return false;
    if (!take_mac(option, result))
        return false;
    NK_LOG(log::TRACE, "Option CLIENT ID DUID_LLT: {}", result.mac);
    return true;
}

bool interpret_duid_ll(buffer_view& option, DhcpResult& result) {
    option.readn<unsigned char>(2);  // hardware type
    if (!take_mac(option, result))
        return false;
    NK_LOG(log::TRACE, "Option CLIENT ID DUID_LL: {}", result.mac);
    return true;
}

bool interpret_client_id(buffer_view& option, DhcpResult& result) {
    if (option.size < 2) {
        NK_LOG(log::WARN, "Invalid length {:d} for option Client ID", option.size);
        return false;
    }
    const std::uint16_t type = *read16(option);
    if (type == kDuidLlt)
        return interpret_duid_llt(option, result);
    if (type == kDuidLl)
        return interpret_duid_ll(option, result);
    NK_LOG(log::DEBUG, "Can't extract MAC address from Client ID type {:d}", type);
    return true;
}

// Replaces the list; an odd trailing byte is ignored.
bool interpret_option_request(buffer_view& option, DhcpFingerprint& fingerprint) {
    std::string& list = fingerprint.option_list;
    list.clear();
    const std::uint32_t codes = option.size / 2;
    std::size_t width = codes > 0 ? codes - 1 : 0;  // the separators
    for (std::uint32_t i = 0; i < codes; ++i)
        width +=
            decimal_width(static_cast<unsigned>(option.data[2 * i] << 8 | option.data[2 * i + 1]));
    list.reserve(width);  // one allocation at most, none for a short list
    while (option.remaining() >= 2) {
        if (!list.empty())
            list.push_back(' ');
        append_decimal(list, *read16(option));
    }
    NK_LOG(log::TRACE, "Option OPTION REQUEST: {:s}", list);
    return true;
}

bool interpret_elapsed_time(buffer_view& option) {
    if (option.size != 2) {
        NK_LOG(log::ERROR, "Invalid length {:d} for Elapsed Time option", option.size);
        return false;
    }
    NK_LOG(log::TRACE, "Option ELAPSED TIME: {:d}", *read16(option));
    return true;
}

// "<enterprise number>; <item> <item>...". A length field cut to one byte is not a soft fault:
// value() throws, and the bus handler drops the packet.
bool interpret_vendor_class(buffer_view& option, DhcpFingerprint& fingerprint) {
    if (option.size < 4) {
        NK_LOG(log::ERROR, "Invalid length {:d} for Vendor Class option", option.size);
        return false;
    }
    std::string& text = fingerprint.vendor_class;
    text.clear();
    append_decimal(text, from_network(*option.read<std::uint32_t>()));
    text.append("; ");
    bool first = true;
    while (!option.empty()) {
        const std::uint16_t length = from_network(option.read<unsigned short>().value());
        const std::optional<const unsigned char*> item = option.readn<unsigned char>(length);
        if (!item)
            return false;
        if (!first)
            text.push_back(' ');
        first = false;
        append_text(text, *item, static_cast<unsigned char>(length));
    }
    NK_LOG(log::TRACE, "Option VENDOR CLASS: {:s}", text);
    return true;
}

// Only the first label, the host part, is used.
bool interpret_hostname(buffer_view& option, DhcpResult& result) {
    if (option.size == 0) {
        NK_LOG(log::ERROR, "Invalid length {:d} for FQDN option", option.size);
        return false;
    }
    option.read<unsigned char>();  // flags
    const std::optional<unsigned char> length = option.read<unsigned char>();
    if (!length)
        return false;
    if (*length == 0)
        return true;
    const std::optional<const unsigned char*> label = option.readn<unsigned char>(*length);
    if (!label)
        return false;
    std::string raw;
    append_text(raw, *label, *length);
    result.hostname = extract_hostname(raw);
    NK_LOG(log::INFO, "DHCPv6 FQDN '{:s}' translated to '{:s}'", raw, result.hostname);
    return true;
}

bool interpret_option(std::uint16_t code, buffer_view& option, DhcpResult& result) {
    switch (code) {
        case kClientId:
            return interpret_client_id(option, result);
        case kOptionRequest:
            return interpret_option_request(option, result.fingerprint);
        case kElapsedTime:
            return interpret_elapsed_time(option);
        case kVendorClass:
            return interpret_vendor_class(option, result.fingerprint);
        case kClientFqdn:
            return interpret_hostname(option, result);
        default:
            return true;
    }
}

bool parse_variable_options(buffer_view& message, DhcpResult& result) {
    while (!message.empty()) {
        std::optional<std::pair<std::uint16_t, buffer_view>> option = extract_option(message);
        if (!option || !interpret_option(option->first, option->second, result))
            return false;
    }
    NK_LOG(log::DEBUG, "Finished parsing dhcp message");
    return true;
}

}  // namespace

bool parse_dhcpv6_message(buffer_view& message, const macaddr& src_mac, DhcpResult& result) {
    NK_LOG(log::DEBUG, "Parsing DHCPv6 message");
    const std::optional<std::string_view> type = extract_message_type(message);
    if (!type || !message.readn<unsigned char>(kTransactionIdSize))
        return false;
    result.fingerprint.version = true;
    if (!parse_variable_options(message, result))
        return false;
    const DhcpFingerprint& fingerprint = result.fingerprint;
    if (fingerprint.option_list.empty() && fingerprint.vendor_class.empty() &&
        result.hostname.empty()) {
        NK_LOG(log::DEBUG, "Skipping empty information in DHCPv6 message from mac {}", src_mac);
        return false;
    }
    NK_LOG(log::INFO, "Received {:s} from src_mac {}; req_mac: {}; fingerprint: {}; hostname: {:s}",
           *type, src_mac, result.mac, fingerprint, result.hostname);
    // The frame's MAC wins over the one in the DUID, which may be of another interface.
    result.mac = src_mac;
    return true;
}

}  // namespace nk
