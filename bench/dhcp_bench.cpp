// The DHCP readers on the client messages of real clients (the captured test packets): time and
// heap allocations per packet, and beside them ISC Kea's unpack of the same packets when Kea is
// installed. Logging is off, as on a box whose log level keeps the parsers quiet.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include <nk/log.h>

#include "allocation_counter.h"
#include "dhcp_captures.h"
#include "nkdhcpparser.h"
#ifdef NK_HAVE_KEA
#include "kea_unpack.h"
#endif

namespace {

using Bytes = std::vector<std::uint8_t>;

// The DHCP messages (UDP header removed) of one version.
std::vector<Bytes> packets(bool v6) {
    std::vector<Bytes> out;
    for (const auto& p : nk::test::kCapturedDhcp) {
        if (p.v6 != v6)
            continue;
        const std::string hex = p.udp;
        Bytes bytes;
        for (std::size_t i = 16; i + 1 < hex.size(); i += 2)
            bytes.push_back(static_cast<std::uint8_t>(std::stoi(hex.substr(i, 2), nullptr, 16)));
        out.push_back(std::move(bytes));
    }
    return out;
}

// Runs `unpack` over every packet of a version once per iteration; reports the time and the
// allocations per packet.
template <typename Unpack>
void run(benchmark::State& state, bool v6, Unpack unpack) {
    nk::log::set_level(-1);
    const std::vector<Bytes> messages = packets(v6);
    std::uint64_t accepted = 0;
    const std::uint64_t before = allocations_so_far();
    for (auto _ : state) {
        for (const Bytes& m : messages)
            accepted += unpack(m) ? 1 : 0;
    }
    const double count = static_cast<double>(messages.size());
    const double total = static_cast<double>(state.iterations()) * count;
    state.counters["per_packet"] = benchmark::Counter(
        count, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
    state.counters["allocs_per_packet"] =
        static_cast<double>(allocations_so_far() - before) / total;
    state.counters["accepted"] =
        static_cast<double>(accepted) / static_cast<double>(state.iterations());
    state.counters["packets"] = count;
}

const nk::sockutl::macaddr kFrameMac("02:4e:4b:00:00:01");

bool ours4(const Bytes& m) {
    nk::buffer_view view(m.data(), static_cast<std::uint32_t>(m.size()));
    nk::DhcpResult result;
    const bool ok = nk::parse_dhcpv4_message(view, kFrameMac, result);
    benchmark::DoNotOptimize(result);
    return ok;
}

bool ours6(const Bytes& m) {
    nk::buffer_view view(m.data(), static_cast<std::uint32_t>(m.size()));
    nk::DhcpResult result;
    const bool ok = nk::parse_dhcpv6_message(view, kFrameMac, result);
    benchmark::DoNotOptimize(result);
    return ok;
}

void Dhcpv4Ours(benchmark::State& state) {
    run(state, false, ours4);
}
void Dhcpv6Ours(benchmark::State& state) {
    run(state, true, ours6);
}
BENCHMARK(Dhcpv4Ours);
BENCHMARK(Dhcpv6Ours);

#ifdef NK_HAVE_KEA
void Dhcpv4KeaUnpack(benchmark::State& state) {
    run(state, false, [](const Bytes& m) { return kea_unpack4(m.data(), m.size()); });
}
void Dhcpv6KeaUnpack(benchmark::State& state) {
    run(state, true, [](const Bytes& m) { return kea_unpack6(m.data(), m.size()); });
}
BENCHMARK(Dhcpv4KeaUnpack);
BENCHMARK(Dhcpv6KeaUnpack);
#endif

}  // namespace

BENCHMARK_MAIN();
