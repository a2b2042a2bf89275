#include "services/idl-topologyd/agreement.h"

#include "base/hash.h"
#include "base/trace.h"

namespace topologyd {

namespace {

using namespace tavu;
using namespace services;
using enum agreement_state;

// Keys come within milliseconds, and a member of the association that stays silent is dropped after 5 s.
constexpr uint64_t patience_ms = 5000;
constexpr uint64_t patience_alone_ms = 1000;
// An encryption that has lasted this long has put right what was wrong before.
constexpr uint64_t lasting_ms = 10000;
// A link that starts over more often within `lasting_ms`, by whatever cause, is slowed down.
constexpr uint32_t recent_max = 8;

// Spreads the pauses of links and units without need of a clock or of chance: the same incarnation and port
// give the same pause, every time.
uint64_t jitter(const agreement& agreed, uint64_t range) {
    uint64_t hash = hash_of(agreed.port.c_str(), agreed.incarnation);
    hash ^= hash >> 29;
    return hash % (range + 1);
}

void change_state(agreement& agreed, agreement_state state, uint64_t now_ms) {
    TRACE_STATE_CHANGE("TOPOLOGYD: Port '%s': '%s' -> '%s', incarnation=%u, incarnation of the other end=%u",
                       agreed.port.c_str(), agreement_state_to_str(agreed.state),
                       agreement_state_to_str(state), agreed.incarnation, agreed.peer.incarnation);
    change(agreed.state, state, agreement_state_changes);
    agreed.state_since_ms = now_ms;
    agreed.patient_since_ms = now_ms;
}

// A new incarnation, which differs from all earlier ones.
void start_incarnation(agreement& agreed, uint64_t now_ms) {
    // Later than any that an earlier record of the port, or an earlier process, had.
    agreed.incarnation = std::max(agreed.incarnation + 1, static_cast<uint32_t>(now_ms));
    if (agreed.incarnation == 0)
        agreed.incarnation = 1;
}

void forget_failures(agreement& agreed) {
    agreed.failing.succeed();
    agreed.failure = TOPOLOGY_FAULT_NONE;
    agreed.recent_start_overs = 0;
}

// The first failure after a good time is no reason to wait.
void count_failure(agreement& agreed, topology_fault_code failure, uint64_t now_ms) {
    agreed.failure = failure;
    agreed.failing.fail(now_ms, 1, [&](uint64_t pause_ms) { return jitter(agreed, pause_ms / 4); });
}

bool is_flapping(agreement& agreed, uint64_t now_ms) {
    if (now_ms - agreed.recent_since_ms > lasting_ms) {
        agreed.recent_since_ms = now_ms;
        agreed.recent_start_overs = 0;
    }
    return ++agreed.recent_start_overs > recent_max;
}

// Down and into a new incarnation; `failure` when it is this end that failed.
void start_over(agreement& agreed, topology_fault_code failure, uint64_t now_ms) {
    if (agreed.state == encrypted && now_ms - agreed.state_since_ms >= lasting_ms)
        forget_failures(agreed);
    if (agreed.state != down && is_flapping(agreed, now_ms) && failure == TOPOLOGY_FAULT_NONE)
        failure = TOPOLOGY_FAULT_FLAPPING;
    if (failure != TOPOLOGY_FAULT_NONE)
        count_failure(agreed, failure, now_ms);
    agreed.up_with = 0;
    agreed.probes.succeed();
    if (agreed.state != down)
        change_state(agreed, down, now_ms);
    start_incarnation(agreed, now_ms);
    if (failure != TOPOLOGY_FAULT_NONE)
        TRACE_INFO("TOPOLOGYD: Port '%s': starts over: %s", agreed.port.c_str(), fault_to_word(failure));
}

bool hosts_key_server(const agreement& agreed) {
    return agreed.peer.own_mpid < agreed.remote_mpid;
}

bool may_go_up(const agreement& agreed, const link_situation& situation, uint64_t now_ms) {
    const peer_report& peer = agreed.peer;
    if (phase_of(agreed, situation, now_ms) != TOPOLOGY_PHASE_DOWN || peer.incarnation == 0 ||
        peer.seen_incarnation != agreed.incarnation || peer.own_mpid == agreed.remote_mpid)
        return false;
    return peer.phase == (hosts_key_server(agreed) ? TOPOLOGY_PHASE_DOWN : TOPOLOGY_PHASE_JOINING);
}

// Whether the other end has another incarnation than when this end went up, or cannot secure the link now.
bool pair_is_broken(const agreement& agreed) {
    return agreed.peer.incarnation != agreed.up_with || agreed.peer.phase == TOPOLOGY_PHASE_OFF ||
           agreed.peer.phase == TOPOLOGY_PHASE_NO_DAEMON;
}

bool waits_for_keys(const agreement& agreed) {
    return (agreed.state == starting || agreed.state == joining) &&
           agreed.peer.phase != TOPOLOGY_PHASE_PORT_DOWN;
}

// The port carries clear frames, though its link is published up.
bool port_is_down(agreement& agreed, bool is_answer, uint64_t now_ms, wish& wished) {
    switch (agreed.state) {
    case down:
    case port_down:
        return false;
    case starting:
        change_state(agreed, port_down, now_ms);
        agreed.probes.fail(now_ms);
        return true;
    case joining:
        // A port whose last association ended without protection answers so as soon as it has joined, and
        // the keys that come with the other end put it right. A cable that was pulled answers so too.
        if (is_answer) {
            agreed.patient_since_ms = now_ms + patience_alone_ms - patience_ms;
            return false;
        }
        break;
    case encrypted:
        break;
    }
    // Its cable is out, or the daemon released it and has forgotten the link. Publishing anew is right for
    // both.
    start_over(agreed, TOPOLOGY_FAULT_NONE, now_ms);
    wished = wish::publish_anew;
    return true;
}

bool port_joins(agreement& agreed, bool is_answer, uint64_t now_ms) {
    switch (agreed.state) {
    case down:
        return false;
    case starting:
    case port_down:
    case joining:
        // The daemon answers when the port is encrypted, or cannot be.
        if (is_answer)
            start_over(agreed, TOPOLOGY_FAULT_FAILED, now_ms);
        else if (agreed.state != joining)
            change_state(agreed, joining, now_ms);
        else
            return false;
        return true;
    case encrypted:
        start_over(agreed, TOPOLOGY_FAULT_BROKEN, now_ms);
        return true;
    }
    return false;
}

} // namespace

const char* agreement_state_to_str(agreement_state state) {
    switch (state) {
    case down:
        return "down";
    case starting:
        return "starting";
    case port_down:
        return "port down";
    case joining:
        return "joining";
    case encrypted:
        return "encrypted";
    }
    return "unknown";
}

void meet(agreement& agreed, const port_name& port, uint32_t remote_mpid, uint32_t reference,
          uint64_t now_ms) {
    agreement fresh{};
    fresh.port = port;
    fresh.remote_mpid = remote_mpid;
    fresh.reference = reference;
    fresh.incarnation = agreed.incarnation;
    agreed = fresh;
    start_incarnation(agreed, now_ms);
}

bool may_be_up(const agreement& agreed) {
    return agreed.state != down;
}

bool wants_answer(const agreement& agreed) {
    return agreed.state == joining;
}

topology_phase phase_of(const agreement& agreed, const link_situation& situation, uint64_t now_ms) {
    if (!situation.wants_security)
        return TOPOLOGY_PHASE_OFF;
    if (!situation.has_daemon)
        return TOPOLOGY_PHASE_NO_DAEMON;
    switch (agreed.state) {
    case down:
        break;
    case starting:
        return TOPOLOGY_PHASE_STARTING;
    case port_down:
        return TOPOLOGY_PHASE_PORT_DOWN;
    case joining:
        return TOPOLOGY_PHASE_JOINING;
    case encrypted:
        return TOPOLOGY_PHASE_ENCRYPTED;
    }
    if (!situation.is_settled)
        return TOPOLOGY_PHASE_STOPPING;
    return agreed.failing.is_pausing(now_ms) ? TOPOLOGY_PHASE_PAUSED : TOPOLOGY_PHASE_DOWN;
}

void peer_found(agreement& agreed) {
    agreed.peer_is_found = true;
}

void peer_lost(agreement& agreed, uint64_t now_ms) {
    agreed.peer_is_found = false;
    agreed.peer = {};
    agreed.refusal = {};
    agreed.answered_incarnation = 0;
    start_over(agreed, TOPOLOGY_FAULT_NONE, now_ms);
    forget_failures(agreed);
}

bool peer_reported(agreement& agreed, const peer_report& report, uint64_t now_ms) {
    // Each step of the other end is a reason to wait for what comes of it.
    if (report.phase != agreed.peer.phase)
        agreed.patient_since_ms = now_ms;
    agreed.peer = report;
    agreed.refusal = {};
    // Once for each of its incarnations: one that never listens is not told for ever.
    if (report.seen_incarnation != 0 || report.incarnation == agreed.answered_incarnation)
        return false;
    agreed.answered_incarnation = report.incarnation;
    return true;
}

void peer_refused(agreement& agreed, const fault_words& why) {
    agreed.peer = {};
    agreed.refusal = why;
}

void agreement_without_daemon(agreement& agreed, uint64_t now_ms) {
    start_over(agreed, TOPOLOGY_FAULT_NONE, now_ms);
    forget_failures(agreed);
}

void forget_pauses(agreement& agreed) {
    agreed.failing.succeed();
}

void agreement_undone(agreement& agreed, topology_fault_code failure, uint64_t now_ms) {
    if (agreed.state != down)
        start_over(agreed, failure, now_ms);
}

bool port_reported(agreement& agreed, uint32_t oper_state, uint32_t encryption_state, bool is_answer,
                   uint64_t now_ms, wish& wished) {
    wished = wish::none;
    if (agreed.state == down)
        return false;
    // While a port joins, the daemon may show it as encrypted with what is left of an earlier association.
    if (oper_state != OXMSI_PORT_OPER_STATE_ENABLED)
        return port_joins(agreed, is_answer, now_ms);
    if (encryption_state != OXMSI_PORT_ENCRYPTION_STATE_ENABLED)
        return port_is_down(agreed, is_answer, now_ms, wished);
    if (agreed.state == encrypted)
        return false;
    change_state(agreed, encrypted, now_ms);
    return true;
}

wish decide(agreement& agreed, const link_situation& situation, uint64_t now_ms) {
    if (agreed.state == down) {
        if (may_go_up(agreed, situation, now_ms)) {
            change_state(agreed, starting, now_ms);
            agreed.up_with = agreed.peer.incarnation;
        }
        return wish::none;
    }
    if (!situation.wants_security || pair_is_broken(agreed)) {
        start_over(agreed, TOPOLOGY_FAULT_NONE, now_ms);
        return wish::none;
    }
    if (waits_for_keys(agreed) && now_ms - agreed.patient_since_ms >= patience_ms) {
        start_over(agreed, TOPOLOGY_FAULT_NO_KEYS, now_ms);
        return wish::none;
    }
    if (agreed.state != port_down || agreed.probes.is_pausing(now_ms))
        return wish::none;
    // A port that is down looks like one that the daemon released because some other client closed. Then it
    // has forgotten the link, and would not secure the port when its cable is back; so it is published anew.
    agreed.probes.fail(now_ms);
    return wish::publish_anew_unless_pending;
}

uint64_t next_decision_ms(const agreement& agreed) {
    if (agreed.state == down)
        return agreed.failing.until_ms;
    if (agreed.state == port_down)
        return agreed.probes.until_ms;
    return waits_for_keys(agreed) ? agreed.patient_since_ms + patience_ms : 0;
}

} // namespace topologyd
