// What the device-id load tools ask: the LAN's clients from a file, and a request's payload.
#pragma once

#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include <fmt/format.h>

namespace nk::bench {

// "MAC IP" a line.
inline std::vector<std::pair<std::string, std::string>> read_clients(const std::string& file) {
    std::vector<std::pair<std::string, std::string>> clients;
    std::ifstream in(file);
    std::string mac;
    std::string ip;
    while (in >> mac >> ip)
        clients.emplace_back(mac, ip);
    return clients;
}

inline std::string device_id_request(const std::string& mac, const std::string& ip) {
    return fmt::format(R"({{"mac": "{}", "ip": "{}"}})", mac, ip);
}

}  // namespace nk::bench
