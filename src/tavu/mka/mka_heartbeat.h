// Supervision of a link by heartbeats, the same at both of its ends: a request, its confirmation within the
// period, a pause of a period, and the next request. What is sent, and what a loss means, is each end's own.
#pragma once

#include <cstdint>

#include "platform/oka_timer.h"

namespace tavu {

constexpr uint32_t mka_heartbeat_ms = 2500;

enum mka_heartbeat_state : uint32_t {
    HEARTBEAT_IDLE = 0, // confirmed; the timer runs until the next one is sent
    HEARTBEAT_SENT = 1, // the timer runs until the link counts as lost
};

// Part of the record of the client whose link is supervised.
struct mka_heartbeat {
    oka_timer_ref timer; // 0 when none runs
    mka_heartbeat_state state;
};

// Whose heartbeat it is.
struct mka_heartbeat_owner {
    uint32_t client_id;
    const char* ca;         // for traces; null where it is not known
    uint32_t expiry_number; // of the timer's message, a header whose connection reference is the client id
};

enum class mka_heartbeat_expiry {
    stale, // no supervision is running; nothing is to be done
    pause, // the next request is due
    loss,  // a request was not confirmed; supervision has ended
};

// True, after a trace, when supervision is under way and must not be started again.
[[nodiscard]] bool mka_heartbeat_is_running(const mka_heartbeat& heartbeat, const mka_heartbeat_owner& owner);
// A request was sent.
void mka_heartbeat_sent(mka_heartbeat& heartbeat, const mka_heartbeat_owner& owner);
// A confirmation came, awaited or not.
void mka_heartbeat_confirmed(mka_heartbeat& heartbeat, const mka_heartbeat_owner& owner);
// The timer's message came.
[[nodiscard]] mka_heartbeat_expiry mka_heartbeat_expired(mka_heartbeat& heartbeat,
                                                         const mka_heartbeat_owner& owner);
void mka_heartbeat_stop(mka_heartbeat& heartbeat, const mka_heartbeat_owner& owner);

const char* heartbeat_state_to_str(mka_heartbeat_state state);

} // namespace tavu
