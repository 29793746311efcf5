#include "capture_filter.h"

#include <fmt/format.h>

#include "http_request.h"

namespace nk::sniffer {

namespace {

// The first four bytes of a request line with this method, as a big-endian word.
unsigned request_word(std::string_view method) {
    std::string start = std::string(method) + " ";
    start.resize(4);
    unsigned word = 0;
    for (const char c : start)
        word = word << 8 | static_cast<unsigned char>(c);
    return word;
}

// "(WORD_AT = 0x... or ...)" over every method, where `word_at` loads the payload's first word.
std::string any_method(const char* word_at) {
    std::string test;
    for (const std::string_view method : kHttpMethods) {
        if (!test.empty())
            test += " or ";
        test += fmt::format("{} = {:#010x}", word_at, request_word(method));
    }
    return "(" + test + ")";
}

}  // namespace

std::string capture_filter() {
    // libpcap's tcp[] reads IPv4 only; over IPv6 the payload is found after the fixed header.
    const std::string http4 =
        "(ip and tcp dst port 80 and " + any_method("tcp[((tcp[12] & 0xf0) >> 2):4]") + ")";
    const std::string http6 = "(ip6 and ip6[6] = 6 and tcp dst port 80 and " +
                              any_method("ip6[40 + ((ip6[52] & 0xf0) >> 2):4]") + ")";
    const std::string wanted = "udp dst port 67 or udp dst port 547 or " + http4 + " or " + http6;
    // After "vlan" every offset is that of the tagged frame's inner headers.
    return "(" + wanted + ") or (vlan and (" + wanted + "))";
}

}  // namespace nk::sniffer
