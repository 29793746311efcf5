// Table rows kept as data: one JSON object a line in tests/daemon/data/NAME.jsonl, read by the
// tests' common reader (header-only, so the benchmarks read them too).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "../support/tables.h"

namespace nk::test {

inline std::string data_dir() {
    return NK_DAEMON_DATA_DIR;
}

inline Lines rows(const std::string& name) {
    return Lines(data_dir() + "/" + name + ".jsonl");
}

inline std::vector<std::uint8_t> from_hex(const std::string& hex) {
    std::vector<std::uint8_t> out;
    for (std::size_t i = 0; i + 1 < hex.size(); i += 2)
        out.push_back(static_cast<std::uint8_t>(std::stoi(hex.substr(i, 2), nullptr, 16)));
    return out;
}

}  // namespace nk::test
