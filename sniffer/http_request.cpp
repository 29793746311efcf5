#include "http_request.h"

#include <algorithm>
#include <cstdint>

namespace nk::sniffer {

namespace {

constexpr std::string_view kUserAgent = "user-agent";
constexpr std::string_view kWhiteSpace = " \t";

bool equals_ignoring_case(std::string_view a, std::string_view b) {
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
               const auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? c + ('a' - 'A') : c; };
               return lower(x) == lower(y);
           });
}

std::string_view trim(std::string_view text) {
    const std::size_t begin = text.find_first_not_of(kWhiteSpace);
    if (begin == std::string_view::npos)
        return {};
    return text.substr(begin, text.find_last_not_of(kWhiteSpace) - begin + 1);
}

// Valid UTF-8 without control characters (tab allowed), as JSON text needs and a log can show.
bool is_clean_text(std::string_view text) {
    std::size_t i = 0;
    while (i < text.size()) {
        const auto c = static_cast<std::uint8_t>(text[i]);
        if (c < 0x80) {
            if ((c < 0x20 && c != '\t') || c == 0x7f)
                return false;
            ++i;
            continue;
        }
        std::size_t extra = 0;
        std::uint32_t code = 0;
        if ((c & 0xe0) == 0xc0) {
            extra = 1;
            code = c & 0x1f;
        } else if ((c & 0xf0) == 0xe0) {
            extra = 2;
            code = c & 0x0f;
        } else if ((c & 0xf8) == 0xf0) {
            extra = 3;
            code = c & 0x07;
        } else {
            return false;
        }
        if (text.size() - i <= extra)
            return false;
        for (std::size_t k = 1; k <= extra; ++k) {
            const auto next = static_cast<std::uint8_t>(text[i + k]);
            if ((next & 0xc0) != 0x80)
                return false;
            code = code << 6 | (next & 0x3f);
        }
        // Overlong forms, surrogates and code points past Unicode are not UTF-8.
        static constexpr std::uint32_t kMinimum[] = {0, 0x80, 0x800, 0x10000};
        if (code < kMinimum[extra] || (code >= 0xd800 && code <= 0xdfff) || code > 0x10ffff)
            return false;
        i += extra + 1;
    }
    return true;
}

}  // namespace

bool starts_request(std::string_view segment) {
    return std::any_of(kHttpMethods.begin(), kHttpMethods.end(), [&](std::string_view method) {
        return segment.size() > method.size() && segment.compare(0, method.size(), method) == 0 &&
               segment[method.size()] == ' ';
    });
}

std::optional<std::string> user_agent_of(std::string_view segment) {
    if (!starts_request(segment))
        return std::nullopt;
    std::size_t line_end = segment.find("\r\n");
    // Each header line must end inside the segment; a cut line is not read.
    while (line_end != std::string_view::npos) {
        const std::size_t begin = line_end + 2;
        line_end = segment.find("\r\n", begin);
        if (line_end == std::string_view::npos || line_end == begin)
            break;
        const std::string_view line = segment.substr(begin, line_end - begin);
        const std::size_t colon = line.find(':');
        if (colon == std::string_view::npos ||
            !equals_ignoring_case(line.substr(0, colon), kUserAgent))
            continue;
        const std::string_view value = trim(line.substr(colon + 1));
        if (value.empty() || value.size() > kMaxUserAgent || !is_clean_text(value))
            return std::nullopt;
        return std::string(value);
    }
    return std::nullopt;
}

}  // namespace nk::sniffer
