// Which clock the process runs by.
#include "platform/oka/core/core.h"
#include "platform/oka/core/core_internal.h"
#include "platform/oka/core/linux_clock.h"
#include "platform/oka_clock.h"
#include "platform/zeb/zeb_sink.h"

namespace {

constinit const oka::clock* plugged_clock = nullptr;

const oka::clock& current() {
    return plugged_clock ? *plugged_clock : oka::linux_clock;
}

} // namespace

namespace oka {

void plug_clock(const clock* plugged) {
    plugged_clock = plugged;
    zeb::set_clock(plugged ? oka_now_ms : nullptr);
}

bool clock_plugged() {
    return plugged_clock;
}

uint64_t now_ns() {
    return current().now_ns();
}

bool wait(uint64_t deadline_ns) {
    return current().wait(deadline_ns);
}

} // namespace oka

uint64_t oka_now_ms() {
    return oka::now_ns() / 1'000'000;
}
