// Where everything that a run leaves open is drawn from: one stream of numbers for each seed.
#pragma once

#include <cmath>
#include <cstddef>
#include <cstdint>

namespace simulate {

class chance {
  public:
    explicit chance(uint64_t seed) : state_(seed) {}

    // SplitMix64.
    uint64_t next() {
        uint64_t mixed = state_ += 0x9e3779b97f4a7c15u;
        mixed = (mixed ^ mixed >> 30) * 0xbf58476d1ce4e5b9u;
        mixed = (mixed ^ mixed >> 27) * 0x94d049bb133111ebu;
        return mixed ^ mixed >> 31;
    }
    size_t below(size_t bound) { return static_cast<size_t>(next() % bound); }
    bool one_in(size_t times) { return below(times) == 0; }
    // Every order of magnitude is equally likely: faults often show only at short times.
    uint64_t spread(uint64_t least, uint64_t most) {
        double part = static_cast<double>(next() >> 11) / 9007199254740992.0;
        return static_cast<uint64_t>(static_cast<double>(least) *
                                     std::pow(static_cast<double>(most) / static_cast<double>(least), part));
    }

  private:
    uint64_t state_;
};

} // namespace simulate
