// Counts every heap allocation the process makes through operator new (a benchmark links it to
// report allocations per operation).
#pragma once

#include <cstdint>

std::uint64_t allocations_so_far();
