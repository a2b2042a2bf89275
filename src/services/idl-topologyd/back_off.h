// The pause after the n-th failure in a row: 1, 2, 4 ... s, at most 30 s.
#pragma once

#include <algorithm>
#include <cstdint>

namespace topologyd {

struct back_off {
    uint32_t failures = 0;
    uint64_t until_ms = 0; // 0: no pause

    // The first `spared` failures cause no pause. `shortened` gives by how much a pause of so many
    // milliseconds is shortened, to spread those of many links.
    template<class Shortened>
    void fail(uint64_t now_ms, uint32_t spared, Shortened shortened) {
        constexpr uint64_t first_ms = 1000, longest_ms = 30000;
        if (failures++ < spared)
            return;
        uint64_t pause_ms = std::min(first_ms << std::min(failures - 1 - spared, 10u), longest_ms);
        until_ms = now_ms + pause_ms - shortened(pause_ms);
    }
    void fail(uint64_t now_ms) {
        fail(now_ms, 0, [](uint64_t) { return uint64_t{0}; });
    }
    void succeed() { *this = {}; }
    bool is_pausing(uint64_t now_ms) const { return now_ms < until_ms; }
};

} // namespace topologyd
