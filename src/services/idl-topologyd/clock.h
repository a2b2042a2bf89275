#pragma once

#include <cstdint>

#include "platform/oka_clock.h"

namespace topologyd {

// Monotonic, on the clock of the timers, and never 0, which stands for "never" in every record.
inline uint64_t now_ms() {
    return oka_now_ms() + 1;
}

} // namespace topologyd
