#include "tavu/mka/mka_heartbeat.h"

#include "base/enum_text.h"
#include "base/trace.h"
#include "base/wire.h"

namespace tavu {

namespace {

constexpr enum_text state_names[] = {
    ENUM_TEXT(HEARTBEAT_IDLE),
    ENUM_TEXT(HEARTBEAT_SENT),
};

// The end of a trace: ", CA name = '...'" where the CA is known. Three words for one "%s%s%s".
#define CA_OF(owner) (owner).ca ? ", CA name = '" : "", (owner).ca ? (owner).ca : "", (owner).ca ? "'" : ""

void start_heartbeat_timer(mka_heartbeat& heartbeat, const mka_heartbeat_owner& owner) {
    TAVU_FUNCTION();
    TRACE_DETAIL("TAVU: Starting heartbeat timer %u ms for client client id = %u%s%s%s", mka_heartbeat_ms,
                 owner.client_id, CA_OF(owner));
    outgoing<message_header> expiry(owner.expiry_number);
    expiry->connection_reference = owner.client_id;
    heartbeat.timer = oka_timer_request_sig(mka_heartbeat_ms, expiry.prepared());
}

void stop_heartbeat_timer(mka_heartbeat& heartbeat) {
    TAVU_FUNCTION();
    oka_timer_cancel(heartbeat.timer);
    heartbeat.timer = 0;
}

} // namespace

const char* heartbeat_state_to_str(mka_heartbeat_state state) {
    return enum_to_str(state_names, state);
}

bool mka_heartbeat_is_running(const mka_heartbeat& heartbeat, const mka_heartbeat_owner& owner) {
    if (heartbeat.timer == 0)
        return false;
    TRACE("TAVU: Heartbeat supervision is already running for client client id = %u%s%s%s", owner.client_id,
          CA_OF(owner));
    return true;
}

void mka_heartbeat_sent(mka_heartbeat& heartbeat, const mka_heartbeat_owner& owner) {
    heartbeat.state = HEARTBEAT_SENT;
    start_heartbeat_timer(heartbeat, owner);
}

void mka_heartbeat_confirmed(mka_heartbeat& heartbeat, const mka_heartbeat_owner& owner) {
    if (heartbeat.timer == 0) {
        TRACE("TAVU: No heartbeat supervision running for client client id = %u%s%s%s", owner.client_id,
              CA_OF(owner));
        return;
    }
    if (heartbeat.state != HEARTBEAT_SENT) {
        TRACE_ERROR("TAVU: Heartbeat supervision is in '%s' state for client client id = %u",
                    heartbeat_state_to_str(heartbeat.state), owner.client_id);
        return;
    }
    stop_heartbeat_timer(heartbeat);
    start_heartbeat_timer(heartbeat, owner);
    heartbeat.state = HEARTBEAT_IDLE;
}

mka_heartbeat_expiry mka_heartbeat_expired(mka_heartbeat& heartbeat, const mka_heartbeat_owner& owner) {
    if (heartbeat.timer == 0) {
        TRACE("TAVU: Heartbeat timeout for client client id = %u, but no heartbeat supervision is running",
              owner.client_id);
        return mka_heartbeat_expiry::stale;
    }
    // An expiry that was queued when its timer was cancelled arrives all the same. The timer that runs by
    // then must not be left running beside its successor.
    stop_heartbeat_timer(heartbeat);
    if (heartbeat.state == HEARTBEAT_SENT) {
        TRACE_ERROR("TAVU: Heartbeat timeout for client client id = %u while waiting for heartbeat cfm",
                    owner.client_id);
        return mka_heartbeat_expiry::loss;
    }
    TRACE("TAVU: Heartbeat timeout for client client id = %u while in idle mode, sending new heartbeat req",
          owner.client_id);
    return mka_heartbeat_expiry::pause;
}

void mka_heartbeat_stop(mka_heartbeat& heartbeat, const mka_heartbeat_owner& owner) {
    if (heartbeat.timer != 0) {
        TRACE("TAVU: Stopping heartbeat timer for client client id = %u%s%s%s", owner.client_id,
              CA_OF(owner));
        stop_heartbeat_timer(heartbeat);
    } else {
        TRACE("TAVU: No heartbeat timer running for client client id = %u%s%s%s", owner.client_id,
              CA_OF(owner));
    }
    heartbeat.state = HEARTBEAT_IDLE;
}

} // namespace tavu
