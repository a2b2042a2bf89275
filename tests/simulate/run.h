// One run: a node drawn from the seed, with the faults that the seed enables, through rounds of disturbance
// and quiet, until something is wrong or the time is over.
#pragma once

#include <array>
#include <cstdint>
#include <string>

#include "simulate/faults.h"

namespace simulate {

struct settings {
    uint64_t seed = 1;
    int units = 0; // 0: drawn
    int links = 0;
    unsigned faults = ~0u; // those that may be drawn
    unsigned rounds = 6;
    bool verbose = false;
};

struct recoveries {
    uint64_t injected = 0;
    uint64_t recovered = 0; // of those that nothing else preceded or followed
    uint64_t worst_ns = 0;
};

// Plain memory, so that a worker process can hand it over.
struct outcome {
    uint64_t seed;
    uint64_t virtual_ns;
    uint64_t events;
    uint64_t digest;
    std::array<recoveries, FAULT_KINDS> by_kind;
    bool violated;
};

// A violation is described on standard output.
outcome run(const settings& wanted);

} // namespace simulate
