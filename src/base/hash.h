// FNV-1a: spreads names well, and is the same on every machine. It need not be hard to invert.
#pragma once

#include <cstdint>
#include <string_view>

namespace tavu {

constexpr uint64_t hash_of(std::string_view text, uint64_t seed = 0) {
    uint64_t hash = 0xcbf29ce484222325 ^ seed;
    for (char octet : text)
        hash = (hash ^ static_cast<uint8_t>(octet)) * 0x100000001b3;
    return hash;
}

} // namespace tavu
