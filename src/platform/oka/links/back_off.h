// How long to wait before the next attempt: twice as long each time, up to a limit.
#pragma once

#include <algorithm>
#include <cstdint>

namespace oka {

struct back_off {
    uint64_t first_ms;
    uint64_t longest_ms;
    uint64_t last_ms = 0;

    uint64_t next_ms() { return last_ms = std::clamp(last_ms * 2, first_ms, longest_ms); }
    void reset() { last_ms = 0; }
};

} // namespace oka
