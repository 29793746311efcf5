// One lease as a DHCP server's lease file records it.
#pragma once

#include <ctime>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <nk/sockutl.h>

namespace nk::collector {

struct Lease {
    sockutl::macaddr mac;  // invalid for a DHCPv6 lease: those name a DUID, not a MAC
    sockutl::address ip;
    std::string host;       // empty when the client gave none
    std::string client_id;  // raw bytes: DHCPv4 client identifier, or the DHCPv6 client's DUID
};

// A line or block a reader skipped, for the log.
struct LeaseProblem {
    int line = 0;
    std::string what;
};

// What a reader made of one lease file's text.
struct LeaseFile {
    std::vector<Lease> leases;
    std::vector<LeaseProblem> problems;
    // The text ends inside a record: the server is writing it right now.
    bool torn = false;
};

// The identity a client keeps across MACs: the DUID of an RFC 4361 client identifier (type
// 255, after its 4-byte IAID), else the identifier itself.
std::string client_identity(const std::string& client_id);

// Bytes written as colon-separated hex ("01:0a:ff"); empty when the text is not that.
std::optional<std::string> hex_bytes(std::string_view text);

// Bytes as colon-separated hex, the form hex_bytes reads.
std::string hex_text(std::string_view bytes);

// The MAC inside a DUID-LLT or DUID-LL of an Ethernet interface; invalid for other DUIDs.
sockutl::macaddr duid_mac(const std::string& duid);

}  // namespace nk::collector
