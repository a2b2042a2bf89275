// Replays what is known by construction and what fuzzing has found, through the fuzzer's own entry.
#include "fuzz/target.h"

int main() {
    int failed = 0;
    for (const fuzz::scenario& each : fuzz::scenarios()) {
        printf("%s\n", each.name);
        fflush(stdout);
        const std::vector<uint8_t> exact(each.input.begin(), each.input.end());
        LLVMFuzzerTestOneInput(exact.data(), exact.size());
        if (fuzz::reached() == each.comes_to)
            continue;
        printf("it came to %u instead of %u\n", fuzz::reached(), each.comes_to);
        failed = 1;
    }
    return failed;
}
