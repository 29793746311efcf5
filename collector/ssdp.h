// SSDP datagrams (UPnP device architecture 1.1, section 1): the M-SEARCH the collector sends, and
// the reading of the answers and announcements it hears.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace nk::collector::ssdp {

inline constexpr const char* kGroup = "239.255.255.250";
inline constexpr int kPort = 1900;
// Real answers are a few hundred bytes; anything longer is not read.
inline constexpr std::size_t kMaxDatagram = 4096;

// A search for every device and service, answered within `mx` seconds.
std::string msearch(int mx);

struct Message {
    enum class Kind { Answer, Notify, Search };
    Kind kind = Kind::Answer;
    std::string location;  // LOCATION: where the device description is
    std::string server;    // SERVER: the device's system and UPnP stack
    std::string nts;       // NTS of an announcement: ssdp:alive, ssdp:byebye, ssdp:update
    std::string target;    // ST of an answer, NT of an announcement
    std::string usn;
};

// The start line and the headers the collector uses (names in any case, values without the
// blanks around them, the first of repeated ones); empty with the reason in `why` when the
// datagram is not SSDP.
std::optional<Message> read(std::string_view datagram, std::string& why);

}  // namespace nk::collector::ssdp
