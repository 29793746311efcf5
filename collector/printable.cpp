#include "printable.h"

namespace nk::collector {

std::string printable(std::string_view text, std::size_t max) {
    std::string out;
    for (const char c : text.substr(0, max))
        out.push_back(c >= 0x20 && c < 0x7f ? c : '?');
    if (text.size() > max)
        out += "...";
    return out;
}

}  // namespace nk::collector
