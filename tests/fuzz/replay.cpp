// Replays what is known by construction and what fuzzing has found, through the fuzzer's own entry, and any
// files that are named.
#include <fstream>
#include <iterator>

#include "fuzz/target.h"

namespace {

unsigned replay(const char* name, const std::string& input) {
    printf("%s, %zu bytes\n", name, input.size());
    fflush(stdout);
    const std::vector<uint8_t> exact(input.begin(), input.end());
    LLVMFuzzerTestOneInput(exact.data(), exact.size());
    return fuzz::reached();
}

} // namespace

int main(int argc, char** argv) {
    int failed = 0;
    for (const fuzz::scenario& each : fuzz::scenarios()) {
        unsigned reached = replay(each.name, each.input);
        if (reached != each.comes_to)
            printf("it came to %u instead of %u\n", reached, each.comes_to);
        failed |= reached != each.comes_to;
    }
    for (int i = 1; i < argc; i++) {
        std::ifstream file(argv[i], std::ios::binary);
        replay(argv[i], {std::istreambuf_iterator<char>(file), {}});
    }
    return failed;
}
