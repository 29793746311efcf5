// Which interfaces the sifter captures on: those the settings store gives the role "lan" or
// "guest" (/network/interfaces/roles/<name>).
#pragma once

#include <string>
#include <vector>

namespace nk::sniffer {

// The names, sorted; empty when the store lists none (or cannot be read).
std::vector<std::string> lan_interfaces();

// "br-lan,br-guest" to its names; empty pieces are ignored.
std::vector<std::string> split_interfaces(const std::string& list);

}  // namespace nk::sniffer
