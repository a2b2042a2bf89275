// What the two ends of a link agree on: when it is published up, and when both take it down and begin anew.
// Sends nothing and knows no time but the one it is told, so the same decisions can be put to it in any
// order.
//
// A daemon that loses the other end of a connectivity association stays in it, and one that joins again joins
// alone. So a link comes back only after both ends were down. Each end has a life of the link, a number that
// it changes whenever it starts over, and an end is up in a pair of lives, its own and the other's, never in
// one of them: when either changes, the other end starts over too. The end that hosts the key server, the
// one with the smaller MP id, goes up when both are down and know each other's life; the other follows when
// the association is there to be joined.
#pragma once

#include <cstdint>

#include "protocols/topology_messages.h"

namespace topologyd {

struct link_record;

enum class standing {
    DOWN,
    STARTING, // published up, and the port's status since is not known yet
    PORT_DOWN,
    JOINING,
    ENCRYPTED,
};

// What the manager at the other end said last.
struct peer_word {
    uint32_t life = 0; // 0: nothing yet
    uint32_t seen_life = 0;
    services::topology_phase phase = services::TOPOLOGY_PHASE_OFF;
    uint32_t own_mpid = 0; // ours, as its links file has it
    uint32_t trouble = services::TOPOLOGY_TROUBLE_NONE;
    uint64_t trouble_since_ms = 0;
    services::trouble_words words{};
};

struct trouble {
    services::topology_trouble_code code = services::TOPOLOGY_TROUBLE_NONE;
    services::topology_end end = services::TOPOLOGY_END_NONE;
    uint64_t since_ms = 0;
    services::trouble_words words{};
};

struct agreement {
    uint32_t life = 0;
    uint32_t reference = 0; // the link's in messages to the other end

    standing stands = standing::DOWN;
    uint32_t up_with = 0; // the other end's life when we went up
    uint64_t stands_since_ms = 0;
    uint64_t patient_since_ms = 0; // keys that did not come within the time from here do not come

    bool peer_is_found = false;
    peer_word peer{};
    services::trouble_words refusal{}; // why the other end does not talk about the link; "" when it does
    uint32_t answered_life = 0;        // of the other end

    uint32_t failures = 0; // of this end, in a row
    uint64_t pause_until_ms = 0;
    services::topology_trouble_code failure = services::TOPOLOGY_TROUBLE_NONE; // the last, until encrypted
    uint32_t recent_start_overs = 0;
    uint64_t recent_since_ms = 0;
    uint32_t probes = 0; // of a port that is down
    uint64_t probe_at_ms = 0;

    trouble shown{};
    services::topology_peer_link_ind told{}; // to the other end, without ages
    uint32_t recently_told = 0;
    uint64_t told_since_ms = 0;
};

// Whether the link is to be secured, as far as the file and the operator are concerned.
bool wants_security(const link_record& link);
// The daemon holds the link published up.
bool is_published_up(const link_record& link);
services::topology_phase phase_of(const link_record& link, bool has_daemon, uint64_t now_ms);
const char* standing_to_str(standing stands);

// A life other than all before.
void start_life(link_record& link, uint64_t now_ms);

// What happens to a link. Each leaves the decision to decide().
void peer_found(link_record& link);
void peer_lost(link_record& link, uint64_t now_ms);
// True when the other end knows nothing of this one, and is to be told.
bool peer_spoke(link_record& link, const peer_word& word, uint64_t now_ms);
void peer_refused(link_record& link, const services::trouble_words& why);
void agreement_without_daemon(link_record& link, uint64_t now_ms);
// The port's status, as the daemon tells it after it took the link as published up; in the answer to that
// request, or by an indication. True when the standing changed.
bool port_spoke(link_record& link, uint32_t oper_state, uint32_t encryption_state, bool is_answer,
                uint64_t now_ms);

// Goes up, or down, or does neither. True when the standing changed.
bool decide(link_record& link, bool has_daemon, uint64_t now_ms);
// When time alone may change the decision; 0 for never.
uint64_t next_decision_ms(const link_record& link);

} // namespace topologyd
