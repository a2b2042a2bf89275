#include "platform/oka/core/linux_clock.h"

#include <climits>
#include <ctime>

#include "platform/oka/core/descriptors.h"

namespace {

// Answered by the vDSO, without a system call.
uint64_t now() {
    timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    return static_cast<uint64_t>(time.tv_sec) * 1'000'000'000u + static_cast<uint64_t>(time.tv_nsec);
}

bool wait(uint64_t deadline_ns) {
    if (deadline_ns == oka::never_ns) {
        if (oka::watched_descriptors() == 0)
            return false;
        oka::wait_for_descriptors(-1);
        return true;
    }
    uint64_t current = now();
    // Rounded up: a timer never comes early, and waiting never ends just before its deadline.
    uint64_t left_ms = deadline_ns > current ? (deadline_ns - current + 999'999) / 1'000'000 : 0;
    oka::wait_for_descriptors(left_ms < INT_MAX ? static_cast<int>(left_ms) : INT_MAX);
    return true;
}

} // namespace

const oka::clock oka::linux_clock = {.now_ns = now, .wait = wait};
