// The captured client messages of tests/daemon/data/dhcp_captures.jsonl, for the benchmark.
#pragma once

#include "test_data.h"

namespace nk::test {

struct CapturedDhcp {
    bool v6;
    std::string udp;  // UDP header and payload, hex
};

inline const std::vector<CapturedDhcp> kCapturedDhcp = [] {
    std::vector<CapturedDhcp> out;
    for (const Row& row : rows("dhcp_captures"))
        out.push_back({row.flag("v6"), row.str("udp")});
    return out;
}();

}  // namespace nk::test
