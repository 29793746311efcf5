#include "lease.h"

#include <array>
#include <cctype>
#include <cstdint>

namespace nk::collector {

namespace {

constexpr unsigned char kRfc4361Type = 0xff;
constexpr std::size_t kIaidSize = 4;
constexpr std::uint16_t kDuidLlt = 1;
constexpr std::uint16_t kDuidLl = 3;
constexpr std::uint16_t kHardwareEthernet = 1;
constexpr std::size_t kMacSize = 6;

std::uint16_t be16(const std::string& bytes, std::size_t at) {
    return static_cast<std::uint16_t>(static_cast<unsigned char>(bytes[at]) << 8 |
                                      static_cast<unsigned char>(bytes[at + 1]));
}

}  // namespace

std::string client_identity(const std::string& client_id) {
    if (client_id.size() > 1 + kIaidSize &&
        static_cast<unsigned char>(client_id[0]) == kRfc4361Type) {
        return client_id.substr(1 + kIaidSize);
    }
    return client_id;
}

std::optional<std::string> hex_bytes(std::string_view text) {
    std::string bytes;
    std::size_t at = 0;
    while (at < text.size()) {
        if (!bytes.empty()) {
            if (text[at] != ':')
                return std::nullopt;
            ++at;
        }
        int value = 0;
        std::size_t digits = 0;
        for (;
             at < text.size() && digits < 2 && std::isxdigit(static_cast<unsigned char>(text[at]));
             ++at, ++digits) {
            const char c = static_cast<char>(std::tolower(static_cast<unsigned char>(text[at])));
            value = value * 16 + (c <= '9' ? c - '0' : c - 'a' + 10);
        }
        if (digits == 0)
            return std::nullopt;
        bytes.push_back(static_cast<char>(value));
    }
    if (bytes.empty())
        return std::nullopt;
    return bytes;
}

std::string hex_text(std::string_view bytes) {
    static const char digits[] = "0123456789abcdef";
    std::string out;
    for (const char c : bytes) {
        const auto b = static_cast<unsigned char>(c);
        if (!out.empty())
            out.push_back(':');
        out.push_back(digits[b >> 4]);
        out.push_back(digits[b & 0x0f]);
    }
    return out;
}

sockutl::macaddr duid_mac(const std::string& duid) {
    if (duid.size() < 4)
        return {};
    const std::uint16_t type = be16(duid, 0);
    const std::size_t at = type == kDuidLlt ? 8 : type == kDuidLl ? 4 : duid.size();
    if (be16(duid, 2) != kHardwareEthernet || duid.size() != at + kMacSize)
        return {};
    std::array<std::uint8_t, kMacSize> mac{};
    for (std::size_t i = 0; i < kMacSize; ++i)
        mac[i] = static_cast<std::uint8_t>(duid[at + i]);
    return sockutl::macaddr(mac);
}

}  // namespace nk::collector
