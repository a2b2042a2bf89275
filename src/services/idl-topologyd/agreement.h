// What the two ends of one link agree on: whether it may be up, and when both take it down and begin anew. It
// knows nothing of what the daemon holds. Sends nothing and knows no time but the one it is told, so the same
// decisions can be put to it in any order.
//
// A daemon that loses the other end of a connectivity association stays in it, and one that joins again joins
// alone. So a link comes back only after both ends were down. Each end has an incarnation of the link, a
// number that it changes whenever it starts over, and an end is up in a pair of incarnations, its own and the
// other's, never in one of them: when either changes, the other end starts over too. The end that hosts the
// key server, the one with the smaller MP id, goes up when both are down and know each other's incarnation;
// the other follows when the association is there to be joined. docs/decisions/agreed-link-life.md says why.
#pragma once

#include <cstdint>

#include "base/state_changes.h"
#include "protocols/topology_messages.h"
#include "services/idl-topologyd/back_off.h"

namespace topologyd {

using tavu::to;

// How far this end has come.
enum class agreement_state {
    down,
    starting, // may be up, and the port's status since is not known yet
    port_down,
    joining,
    encrypted,
};
constexpr uint32_t agreement_state_changes[] = {
    to(agreement_state::starting),
    to(agreement_state::down) | to(agreement_state::port_down) | to(agreement_state::joining) |
        to(agreement_state::encrypted),
    to(agreement_state::down) | to(agreement_state::joining) | to(agreement_state::encrypted),
    to(agreement_state::down) | to(agreement_state::encrypted),
    to(agreement_state::down),
};
const char* agreement_state_to_str(agreement_state state);

// What the manager at the other end said last.
struct peer_report {
    uint32_t incarnation = 0; // 0: nothing yet
    uint32_t seen_incarnation = 0;
    services::topology_phase phase = services::TOPOLOGY_PHASE_OFF;
    uint32_t own_mpid = 0; // ours, as its links file has it
    uint32_t fault = services::TOPOLOGY_FAULT_NONE;
    uint64_t fault_since_ms = 0;
    services::fault_words words{};
};

// What else is known of the link, from the links file, the operator and the daemon.
struct link_situation {
    bool wants_security = false;
    bool has_daemon = false;
    bool is_settled = false; // the daemon has confirmed what it is to hold
};

// What is to be done about the publication, when the daemon may have forgotten the link.
enum class wish { none, publish_anew, publish_anew_unless_pending };

struct agreement {
    services::port_name port{};
    uint32_t remote_mpid = 0; // as the links file has it
    uint32_t reference = 0;   // the link's in messages to the other end

    uint32_t incarnation = 0;
    agreement_state state = agreement_state::down;
    uint32_t up_with = 0; // the other end's incarnation when we went up
    uint64_t state_since_ms = 0;
    uint64_t patient_since_ms = 0; // keys that did not come within the time from here do not come

    bool peer_is_found = false;
    peer_report peer{};
    services::fault_words refusal{};   // why the other end does not talk about the link; "" when it does
    uint32_t answered_incarnation = 0; // of the other end

    back_off failing{};                                                    // this end, in a row
    services::topology_fault_code failure = services::TOPOLOGY_FAULT_NONE; // the last, until encrypted
    uint32_t recent_start_overs = 0;
    uint64_t recent_since_ms = 0;
    back_off probes{}; // of a port that is down
};

// Begins with another link: down, in a new incarnation, and nothing is known of the other end.
void meet(agreement& agreed, const services::port_name& port, uint32_t remote_mpid, uint32_t reference,
          uint64_t now_ms);

// Whether the link may be published up.
bool may_be_up(const agreement& agreed);
// While the port joins, a request should be pending: the daemon answers it when joining has ended.
bool wants_answer(const agreement& agreed);
services::topology_phase phase_of(const agreement& agreed, const link_situation& situation, uint64_t now_ms);

// What happens to a link. Each leaves the decision to decide().
void peer_found(agreement& agreed);
void peer_lost(agreement& agreed, uint64_t now_ms);
// True when the other end knows nothing of this one, and is to be told.
bool peer_reported(agreement& agreed, const peer_report& report, uint64_t now_ms);
void peer_refused(agreement& agreed, const services::fault_words& why);
void agreement_without_daemon(agreement& agreed, uint64_t now_ms);
void forget_pauses(agreement& agreed);
// What the daemon and the other end have reported is no longer true: both ends start over. The failure is
// NONE when the link itself did not fail.
void agreement_undone(agreement& agreed, services::topology_fault_code failure, uint64_t now_ms);
// The status of a port that is published up, as the daemon tells it in the answer to that request, or by an
// indication. True when the state changed.
bool port_reported(agreement& agreed, uint32_t oper_state, uint32_t encryption_state, bool is_answer,
                   uint64_t now_ms, wish& wished);

// Goes up, or down, or does neither.
wish decide(agreement& agreed, const link_situation& situation, uint64_t now_ms);
// When time alone may change the decision; 0 for never.
uint64_t next_decision_ms(const agreement& agreed);

} // namespace topologyd
