// Whether the daemon answers: it is asked for its capabilities again and again while there is a connection,
// which it answers at once whatever else it does. A daemon that stood still may have lost its connectivity
// associations, and neither it nor the other member says so. Knows no time but the one it is told.
#pragma once

#include <cstdint>

namespace topologyd {

// One that stands still is noticed at the second probe, within twice this time.
constexpr uint32_t probe_interval_ms = 900;
// A member that is not heard of for 2500 ms may be dropped. It may have stopped just after it answered a
// probe.
constexpr uint64_t costly_silence_ms = 2500 - probe_interval_ms;

// How the daemon is reached.
enum class daemon_contact {
    none,
    stalled, // connected, but it does not answer
    answers,
};

struct daemon_probe {
    uint32_t reference = 0; // of the request that is not answered yet; 0 for none
    uint64_t sent_ms = 0;
    uint64_t ticked_ms = 0;
    bool is_stalled = false;
};

// What a tick or an answer has shown.
enum class probe_result {
    nothing,
    stalled, // no answer since the last tick
    resumed, // it answers again, and was not away for long
    lost,    // it, or this process, stood still for so long that what it was told may not hold any more
};

// Every probe_interval_ms. The next probe is to be sent when none is unanswered.
probe_result probe_ticked(daemon_probe& probe, uint64_t now_ms);
void probe_sent(daemon_probe& probe, uint32_t reference, uint64_t now_ms);
// The answer to the request of that reference.
probe_result probe_answered(daemon_probe& probe, uint32_t reference, uint64_t now_ms);

} // namespace topologyd
