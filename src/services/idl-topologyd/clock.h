#pragma once

#include "platform/oka/core.h"

namespace topologyd {

// Monotonic, on the clock of the timers, and never 0, which stands for "never" in every record.
inline uint64_t now_ms() {
    return oka::now_ns() / 1000000 + 1;
}

} // namespace topologyd
