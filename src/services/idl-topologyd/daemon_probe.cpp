#include "services/idl-topologyd/daemon_probe.h"

#include <utility>

namespace topologyd {

probe_result probe_ticked(daemon_probe& probe, uint64_t now_ms) {
    const uint64_t since_ms = now_ms - std::exchange(probe.ticked_ms, now_ms);
    // The timer is late by as much as this process stood still, perhaps with the whole unit.
    if (since_ms >= probe_interval_ms + costly_silence_ms)
        return probe_result::lost;
    if (probe.reference == 0 || probe.is_stalled)
        return probe_result::nothing;
    probe.is_stalled = true;
    return probe_result::stalled;
}

void probe_sent(daemon_probe& probe, uint32_t reference, uint64_t now_ms) {
    probe.reference = reference;
    probe.sent_ms = now_ms;
}

probe_result probe_answered(daemon_probe& probe, uint32_t reference, uint64_t now_ms) {
    if (reference != probe.reference)
        return probe_result::nothing;
    probe.reference = 0;
    const bool was_stalled = std::exchange(probe.is_stalled, false);
    if (now_ms - probe.sent_ms >= costly_silence_ms)
        return probe_result::lost;
    return was_stalled ? probe_result::resumed : probe_result::nothing;
}

} // namespace topologyd
