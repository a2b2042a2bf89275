// Bringing the service up: which clock and which transports this process uses.
#include <cerrno>

#include "platform/oka/core_internal.h"
#include "platform/oka/linux_clock.h"

namespace oka {

void choose_clock() {
    if (!clock_plugged())
        plug_clock(&linux_clock);
}

} // namespace oka

int oka_init(uint32_t, uint32_t, uint32_t, uint32_t, uint32_t) {
    oka::choose_clock();
    return oka::start_core("");
}
