// NetBIOS node status (NBSTAT, RFC 1002 4.2.17-18): the request for a host's name table and the
// reading of its answer. Every length in an answer is checked against the bytes received.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <nk/sockutl.h>

namespace nk::collector::nbstat {

inline constexpr std::uint16_t kPort = 137;

// The request for the name table of whoever receives it (the name "*").
std::vector<std::uint8_t> query(std::uint16_t transaction_id);

struct Name {
    std::string name;  // without its padding; bytes outside printable ASCII shown as '.'
    std::uint8_t suffix = 0;
    bool group = false;
    bool usable = true;  // not in conflict and not being released
};

struct NodeStatus {
    std::uint16_t transaction_id = 0;
    std::vector<Name> names;
    sockutl::macaddr mac;  // all-zero when the host gives none
};

// The answer's names and MAC; empty with the reason in `why` when it is not a well-formed
// node status answer.
std::optional<NodeStatus> parse(const std::uint8_t* data, std::size_t size, std::string& why);

// What a host tells about itself: its name, its workgroup or domain, and each of its names
// with the service its suffix stands for.
struct Table {
    std::string name;
    std::string domain;
    std::set<std::pair<std::string, std::string>> services;
};

// Empty when the host has no usable unique name.
std::optional<Table> table_of(const NodeStatus& status);

// "workstation", "file server", "domain name"... or "<1f>" for a suffix without a usual
// meaning.
std::string service_of(std::uint8_t suffix, bool group);

}  // namespace nk::collector::nbstat
