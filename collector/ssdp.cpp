#include "ssdp.h"

#include <cctype>

#include <fmt/format.h>

#include "printable.h"

namespace nk::collector::ssdp {

namespace {

// More header lines than this is no device talking.
constexpr int kMaxHeaders = 64;

std::string_view trim(std::string_view s) {
    while (!s.empty() && (s.front() == ' ' || s.front() == '\t'))
        s.remove_prefix(1);
    while (!s.empty() && (s.back() == ' ' || s.back() == '\t'))
        s.remove_suffix(1);
    return s;
}

bool same_name(std::string_view a, std::string_view b) {
    if (a.size() != b.size())
        return false;
    for (std::size_t i = 0; i < a.size(); ++i) {
        if (std::tolower(static_cast<unsigned char>(a[i])) !=
            std::tolower(static_cast<unsigned char>(b[i]))) {
            return false;
        }
    }
    return true;
}

// The next line, without its CR LF (or lone LF); false at the end of the text.
bool next_line(std::string_view& text, std::string_view& line) {
    if (text.empty())
        return false;
    const std::size_t end = text.find('\n');
    line = text.substr(0, end);
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    if (!line.empty() && line.back() == '\r')
        line.remove_suffix(1);
    return true;
}

std::optional<Message::Kind> kind_of(std::string_view start, std::string& why) {
    if (start == "NOTIFY * HTTP/1.1")
        return Message::Kind::Notify;
    if (start == "M-SEARCH * HTTP/1.1")
        return Message::Kind::Search;
    if (start.substr(0, 7) == "HTTP/1." && start.size() >= 12 && start[8] == ' ') {
        if (start.substr(9, 3) == "200")
            return Message::Kind::Answer;
        why = fmt::format("answer with status {:s}", printable(start.substr(9, 3)));
        return std::nullopt;
    }
    why = fmt::format("not SSDP (starts with '{:s}')", printable(start, 40));
    return std::nullopt;
}

void keep(Message& m, std::string_view name, std::string_view value) {
    std::string* field = nullptr;
    if (same_name(name, "LOCATION"))
        field = &m.location;
    else if (same_name(name, "SERVER"))
        field = &m.server;
    else if (same_name(name, "NTS"))
        field = &m.nts;
    else if (same_name(name, "ST") || same_name(name, "NT"))
        field = &m.target;
    else if (same_name(name, "USN"))
        field = &m.usn;
    if (field != nullptr && field->empty())
        *field = std::string(value);
}

}  // namespace

std::string msearch(int mx) {
    return fmt::format(
        "M-SEARCH * HTTP/1.1\r\nHOST: {:s}:{:d}\r\nMAN: \"ssdp:discover\"\r\nMX: {:d}\r\n"
        "ST: ssdp:all\r\n\r\n",
        kGroup, kPort, mx);
}

std::optional<Message> read(std::string_view datagram, std::string& why) {
    if (datagram.size() > kMaxDatagram) {
        why = fmt::format("{:d} bytes, more than {:d}", datagram.size(), kMaxDatagram);
        return std::nullopt;
    }
    std::string_view line;
    if (!next_line(datagram, line)) {
        why = "empty";
        return std::nullopt;
    }
    const std::optional<Message::Kind> kind = kind_of(line, why);
    if (!kind)
        return std::nullopt;
    Message m;
    m.kind = *kind;
    int headers = 0;
    // The headers end at an empty line or with the datagram; a body is not read.
    while (next_line(datagram, line) && !line.empty()) {
        if (++headers > kMaxHeaders) {
            why = fmt::format("more than {:d} headers", kMaxHeaders);
            return std::nullopt;
        }
        const std::size_t colon = line.find(':');
        if (colon == std::string_view::npos) {
            why = fmt::format("header line without a colon: '{:s}'", printable(line, 40));
            return std::nullopt;
        }
        keep(m, trim(line.substr(0, colon)), trim(line.substr(colon + 1)));
    }
    return m;
}

}  // namespace nk::collector::ssdp
