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

// op, htype, hlen, hops, xid, secs, flags, ciaddr, yiaddr, siaddr, giaddr, chaddr, sname, file
constexpr std::uint32_t kFixedHeaderSize = 236;
constexpr std::uint32_t kChaddrOffset = 28;
constexpr std::uint32_t kChaddrSize = 16;
constexpr unsigned char kBootRequest = 1;
constexpr unsigned char kMagicCookie[4] = {0x63, 0x82, 0x53, 0x63};

enum Tag : unsigned char {
    kPad = 0,
    kHostName = 12,
    kMessageType = 53,
    kParameterRequestList = 55,
    kVendorClassId = 60,
    kClientId = 61,
    kEnd = 255,
};

constexpr unsigned char kHardwareTypeEthernet = 1;

// Client messages only: offer, ack and nak come from servers.
const std::map<unsigned char, std::string_view> kMessageTypeNames = {
    {1, "DHCP Discover"}, {3, "DHCP Request"}, {4, "DHCP Decline"},
    {7, "DHCP Release"},  {8, "DHCP Inform"},
};

// What the walk over the options has found besides the result itself.
struct Walk {
    const bool chaddr_valid;  // option 61 is looked at only when chaddr gave no valid MAC
    const std::string_view* message_type = nullptr;
};

// The fixed header: its size and that it is a request; nothing else of it is examined.
std::optional<const unsigned char*> strip_fixed_size_options(buffer_view& message) {
    if (message.size < kFixedHeaderSize) {
        NK_LOG(log::ERROR, "Invalid DHCP message. Size {:d} smaller than minimum {:d}",
               message.size, kFixedHeaderSize);
        return std::nullopt;
    }
    const std::optional<const unsigned char*> header =
        message.readn<unsigned char>(kFixedHeaderSize);
    if (!header)
        return std::nullopt;
    const unsigned char op = (*header)[0];
    if (op != kBootRequest) {
        NK_LOG(log::ERROR, "Invalid DHCP message. op {:d} is not BOOTREQUEST", op);
        return std::nullopt;
    }
    NK_LOG(log::DEBUG, "Stripping {:d} bytes", kFixedHeaderSize);
    return header;
}

bool check_magic_cookie(buffer_view& message) {
    const std::optional<const unsigned char*> cookie = message.readn<unsigned char>(4);
    if (!cookie) {
        NK_LOG(log::ERROR, "Invalid DHCP message. magic_cookie not found");
        return false;
    }
    const unsigned char* c = *cookie;
    if (c[0] != kMagicCookie[0] || c[1] != kMagicCookie[1] || c[2] != kMagicCookie[2] ||
        c[3] != kMagicCookie[3]) {
        NK_LOG(log::ERROR, "Invalid magic cookie: {:d}.{:d}.{:d}.{:d}", c[0], c[1], c[2], c[3]);
        return false;
    }
    return true;
}

// The data of the option whose tag was just read; empty when its length does not fit.
std::optional<buffer_view> extract_option(unsigned char tag, buffer_view& options) {
    const std::optional<unsigned char> length = options.read<unsigned char>();
    if (!length) {
        NK_LOG(log::ERROR, "No data length byte after option tag {:d}", tag);
        return std::nullopt;
    }
    const std::optional<buffer_view> data = options.sub(*length);
    if (!data) {
        NK_LOG(log::ERROR, "Invalid data after option tag {:d}, of length {:d}", tag, *length);
        return std::nullopt;
    }
    NK_LOG(log::DEBUG, "Option: tag={:d}, len={:d}", tag, *length);
    return data;
}

bool interpret_host_name(const buffer_view& data, DhcpResult& result) {
    if (data.size == 0) {
        NK_LOG(log::ERROR, "Invalid length {:d} for Host Name option", data.size);
        return false;
    }
    std::uint32_t length = data.size;
    while (length > 0 && data.data[length - 1] == 0)
        --length;
    const std::string raw(reinterpret_cast<const char*>(data.data), length);
    result.hostname = extract_hostname(raw);
    NK_LOG(log::INFO, "DHCP hostname '{:s}' translated to '{:s}'", raw, result.hostname);
    return true;
}

bool interpret_message_type(const buffer_view& data, Walk& walk) {
    if (data.size != 1) {
        NK_LOG(log::ERROR, "Invalid length {:d} for option DHCP Message Type", data.size);
        return false;
    }
    const auto it = kMessageTypeNames.find(data.data[0]);
    if (it == kMessageTypeNames.end()) {
        NK_LOG(log::ERROR, "Invalid DHCP Message Type {:d}", data.data[0]);
        return false;
    }
    walk.message_type = &it->second;
    return true;
}

// A second list is glued to the first without a separator, as the fingerprints the cloud
// knows were made that way.
bool interpret_param_request_list(const buffer_view& data, DhcpFingerprint& fingerprint) {
    if (data.size == 0) {
        NK_LOG(log::ERROR, "Invalid length {:d} for option DHCP Parameter Request List", data.size);
        return false;
    }
    std::string& list = fingerprint.option_list;
    std::size_t width = list.size() + data.size - 1;  // the separators
    for (std::uint32_t i = 0; i < data.size; ++i)
        width += decimal_width(data.data[i]);
    list.reserve(width);  // one allocation at most, none for a short list
    for (std::uint32_t i = 0; i < data.size; ++i) {
        if (i > 0)
            list.push_back(' ');
        append_decimal(list, data.data[i]);
    }
    return true;
}

// Verbatim, zero bytes included: the cloud matches the exact bytes.
bool interpret_vendor_id(const buffer_view& data, DhcpFingerprint& fingerprint) {
    if (data.size == 0) {
        NK_LOG(log::ERROR, "Invalid length {:d} for option DHCP Vendor class identifier",
               data.size);
        return false;
    }
    fingerprint.vendor_class.assign(reinterpret_cast<const char*>(data.data), data.size);
    return true;
}

// Faults here only cost the client identifier, never the message.
void interpret_client_id(const buffer_view& data, DhcpResult& result) {
    if (data.size < 2) {
        NK_LOG(log::WARN, "Invalid length {:d} for option DHCP client identifier", data.size);
        return;
    }
    const unsigned char type = data.data[0];
    if (type != kHardwareTypeEthernet) {
        NK_LOG(log::WARN, "Expecting MAC address (type 0x01) as client identifier, got type {:#x}",
               type);
        return;
    }
    const macaddr mac(buffer_view(data.data + 1, data.size - 1));
    if (!mac.is_valid()) {
        NK_LOG(log::WARN, "{} is not a valid MAC address", mac);
        return;
    }
    result.mac = mac;
}

bool interpret_option(unsigned char tag, const buffer_view& data, DhcpResult& result, Walk& walk) {
    switch (tag) {
        case kHostName:
            return interpret_host_name(data, result);
        case kMessageType:
            return interpret_message_type(data, walk);
        case kParameterRequestList:
            return interpret_param_request_list(data, result.fingerprint);
        case kVendorClassId:
            return interpret_vendor_id(data, result.fingerprint);
        case kClientId:
            if (!walk.chaddr_valid)
                interpret_client_id(data, result);
            return true;
        default:
            return true;
    }
}

// From the end of the cookie to End or the end of the buffer; nothing after End is read.
bool parse_variable_options(buffer_view& options, DhcpResult& result, Walk& walk) {
    while (!options.empty()) {
        const unsigned char tag = *options.read<unsigned char>();
        if (tag == kPad)
            continue;
        if (tag == kEnd)
            break;
        const std::optional<buffer_view> data = extract_option(tag, options);
        if (!data || !interpret_option(tag, *data, result, walk))
            return false;
    }
    NK_LOG(log::DEBUG, "Finished parsing dhcp message");
    return true;
}

}  // namespace

bool parse_dhcpv4_message(buffer_view& message, const macaddr& src_mac, DhcpResult& result) {
    NK_LOG(log::DEBUG, "Parsing DHCP message");
    const std::optional<const unsigned char*> header = strip_fixed_size_options(message);
    if (!header || !check_magic_cookie(message))
        return false;
    const macaddr chaddr(buffer_view(*header + kChaddrOffset, kChaddrSize));
    if (chaddr.is_valid())
        result.mac = chaddr;
    result.fingerprint.version = false;
    Walk walk{result.mac.is_valid()};
    if (!parse_variable_options(message, result, walk))
        return false;
    if (walk.message_type == nullptr) {
        NK_LOG(log::ERROR, "DHCP Message Type Option not found");
        return false;
    }
    const DhcpFingerprint& fingerprint = result.fingerprint;
    if (fingerprint.option_list.empty() && fingerprint.vendor_class.empty()) {
        NK_LOG(log::DEBUG,
               "Skipping empty option_list and vendor_class in DHCP message from mac {}", src_mac);
        return false;
    }
    NK_LOG(log::INFO, "Received {:s} from src_mac {}; req_mac: {}; fingerprint: {}; hostname: {:s}",
           *walk.message_type, src_mac, result.mac, fingerprint, result.hostname);
    if (!result.mac.is_valid())
        result.mac = src_mac;
    return true;
}

}  // namespace nk
