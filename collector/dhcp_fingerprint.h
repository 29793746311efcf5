// What a DHCPv4 client asks for (option 55, in its order) and calls itself (option 60). The
// same system sends the same, whatever MAC it shows.
#pragma once

#include <string>

namespace nk::collector {

struct DhcpFingerprint {
    std::string options;  // option 55 as decimal numbers, "1,121,3,6,15,119,252"; empty: unknown
    std::string vendor;   // option 60's bytes; empty when the client sent none

    bool known() const { return !options.empty(); }

    friend bool operator==(const DhcpFingerprint& a, const DhcpFingerprint& b) {
        return a.options == b.options && a.vendor == b.vendor;
    }
    friend bool operator!=(const DhcpFingerprint& a, const DhcpFingerprint& b) { return !(a == b); }
};

// Whether `text` is an option 55 list as the lease script writes it: 1 to 255 numbers of 0 to
// 255, comma-separated.
bool is_option_list(const std::string& text);

}  // namespace nk::collector
