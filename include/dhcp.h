// What a DHCP client's requests reveal about it.
#pragma once

#include <cstddef>
#include <string>

#include <fmt/format.h>
#include <nk/sockutl.h>

namespace nk {

struct DhcpFingerprint {
    std::string option_list;   // requested option codes in order, separated by one space
    std::string vendor_class;  // vendor class text
    bool version = false;      // false: DHCPv4, true: DHCPv6

    friend bool operator==(const DhcpFingerprint& a, const DhcpFingerprint& b) {
        return a.option_list == b.option_list && a.vendor_class == b.vendor_class &&
               a.version == b.version;
    }
    friend bool operator!=(const DhcpFingerprint& a, const DhcpFingerprint& b) { return !(a == b); }
};

// Appends a code in decimal, the form option lists are kept in; cheaper than a formatter on
// every requested option of every packet.
inline void append_decimal(std::string& out, unsigned value) {
    char digits[10];
    int n = 0;
    do {
        digits[n++] = static_cast<char>('0' + value % 10);
        value /= 10;
    } while (value != 0);
    while (n > 0)
        out.push_back(digits[--n]);
}

// Digits of a code in decimal, to size an option list before it is written.
inline std::size_t decimal_width(unsigned value) {
    std::size_t n = 1;
    while (value >= 10) {
        value /= 10;
        ++n;
    }
    return n;
}

struct DhcpResult {
    DhcpFingerprint fingerprint;
    std::string hostname;
    sockutl::macaddr mac;
};

}  // namespace nk

template <>
struct fmt::formatter<nk::DhcpFingerprint> : fmt::formatter<std::string_view> {
    template <typename Ctx>
    auto format(const nk::DhcpFingerprint& f, Ctx& ctx) const {
        return fmt::format_to(ctx.out(), "option_list='{:s}', vendor_class='{:s}', version='{:s}'",
                              f.option_list, f.vendor_class, f.version ? "v6" : "v4");
    }
};
