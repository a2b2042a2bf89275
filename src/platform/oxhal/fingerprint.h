// The fingerprint of a key: tells whether two keys are the same, and nothing else about them.
#pragma once

#include <cstddef>
#include <cstdint>

namespace oxhal {

constexpr size_t fingerprint_size = 16;

// The first octets of SHA-256 over a text of our own and the key. A key has 128 random bits: nobody finds it
// by trying, nor another one with the same fingerprint.
void fingerprint_of(const uint8_t* key, size_t length, uint8_t (&fingerprint)[fingerprint_size]);

} // namespace oxhal
