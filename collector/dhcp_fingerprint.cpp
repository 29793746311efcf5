#include "dhcp_fingerprint.h"

#include <cctype>

namespace nk::collector {

namespace {

constexpr int kMaxOptions = 255;

}  // namespace

bool is_option_list(const std::string& text) {
    int count = 0;
    std::size_t at = 0;
    while (at < text.size()) {
        int value = 0;
        std::size_t digits = 0;
        for (; at < text.size() && std::isdigit(static_cast<unsigned char>(text[at])); ++at) {
            value = value * 10 + (text[at] - '0');
            if (++digits > 3 || value > 255)
                return false;
        }
        if (digits == 0 || ++count > kMaxOptions)
            return false;
        if (at < text.size() && (text[at] != ',' || ++at == text.size()))
            return false;
    }
    return count > 0;
}

}  // namespace nk::collector
