// What a fuzz target is to the program that replays its cases, and what the targets have in common.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace fuzz {

// Inputs that are known by construction, and those that once found something.
struct scenario {
    const char* name;
    std::string input;
    unsigned comes_to; // what reached() says after it
};
std::vector<scenario> scenarios();
unsigned reached();

inline void expect(bool holds, const char* rule) {
    if (holds)
        return;
    fprintf(stderr, "fuzz: violated: %s\n", rule);
    abort();
}

} // namespace fuzz
