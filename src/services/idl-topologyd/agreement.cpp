#include "services/idl-topologyd/agreement.h"

#include <algorithm>

#include "base/trace.h"
#include "services/idl-topologyd/link_life.h"

namespace topologyd {

namespace {

using namespace tavu;
using namespace services;

// Keys come within milliseconds, and a member of the association that stays silent is dropped after 5 s.
constexpr uint64_t patience_ms = 5000;
constexpr uint64_t patience_alone_ms = 1000;
// An encryption that has lasted this long has put right what was wrong before.
constexpr uint64_t lasting_ms = 10000;
constexpr uint64_t pause_first_ms = 1000;
constexpr uint64_t pause_max_ms = 30000;
// Whoever makes the link start over more often than so many times in `lasting_ms` is met with pauses.
constexpr uint32_t recent_max = 8;

// Spreads the pauses of links and units without need of a clock or of chance: who has the same life and
// port waits as long, every time.
uint64_t jitter(const link_record& link, uint64_t range) {
    uint64_t hash = 0xcbf29ce484222325 ^ link.agreed.life;
    for (size_t i = 0; i < link.file.port.length(); i++)
        hash = (hash ^ static_cast<uint8_t>(link.file.port.octets[i])) * 0x100000001b3;
    hash ^= hash >> 29;
    return hash % (range + 1);
}

void change_standing(link_record& link, standing stands, uint64_t now_ms) {
    TRACE_STATE_CHANGE("TOPOLOGYD: Port '%s': '%s' -> '%s', life=%u, life of the other end=%u",
                       link.file.port.c_str(), standing_to_str(link.agreed.stands), standing_to_str(stands),
                       link.agreed.life, link.agreed.peer.life);
    link.agreed.stands = stands;
    link.agreed.stands_since_ms = now_ms;
    link.agreed.patient_since_ms = now_ms;
}

void forget_failures(agreement& agreed) {
    agreed.failures = 0;
    agreed.pause_until_ms = 0;
    agreed.failure = TOPOLOGY_TROUBLE_NONE;
    agreed.recent_start_overs = 0;
}

// The first failure after a good time is no reason to wait; then 1, 2, 4 ... 30 s, less up to a quarter.
void count_failure(link_record& link, topology_trouble_code failure, uint64_t now_ms) {
    agreement& agreed = link.agreed;
    agreed.failure = failure;
    if (agreed.failures++ == 0)
        return;
    uint64_t pause = std::min(pause_first_ms << std::min(agreed.failures - 2, 10u), pause_max_ms);
    agreed.pause_until_ms = now_ms + pause - jitter(link, pause / 4);
}

bool is_restless(agreement& agreed, uint64_t now_ms) {
    if (now_ms - agreed.recent_since_ms > lasting_ms) {
        agreed.recent_since_ms = now_ms;
        agreed.recent_start_overs = 0;
    }
    return ++agreed.recent_start_overs > recent_max;
}

// Down and into a new life; `failure` when it is this end that failed.
void start_over(link_record& link, topology_trouble_code failure, uint64_t now_ms) {
    agreement& agreed = link.agreed;
    if (agreed.stands == standing::ENCRYPTED && now_ms - agreed.stands_since_ms >= lasting_ms)
        forget_failures(agreed);
    if (agreed.stands != standing::DOWN && is_restless(agreed, now_ms) && failure == TOPOLOGY_TROUBLE_NONE)
        failure = TOPOLOGY_TROUBLE_RESTLESS;
    if (failure != TOPOLOGY_TROUBLE_NONE)
        count_failure(link, failure, now_ms);
    agreed.up_with = 0;
    agreed.probes = 0;
    agreed.probe_at_ms = 0;
    if (agreed.stands != standing::DOWN)
        change_standing(link, standing::DOWN, now_ms);
    start_life(link, now_ms);
    if (failure != TOPOLOGY_TROUBLE_NONE)
        TRACE_INFO("TOPOLOGYD: Port '%s': starts over: %s", link.file.port.c_str(), trouble_to_word(failure));
}

bool hosts_key_server(const link_record& link) {
    return link.agreed.peer.own_mpid < link.file.remote_mpid;
}

bool is_pausing(const agreement& agreed, uint64_t now_ms) {
    return now_ms < agreed.pause_until_ms;
}

bool may_go_up(const link_record& link, bool has_daemon, uint64_t now_ms) {
    const peer_word& peer = link.agreed.peer;
    if (phase_of(link, has_daemon, now_ms) != TOPOLOGY_PHASE_DOWN || peer.life == 0 ||
        peer.seen_life != link.agreed.life || peer.own_mpid == link.file.remote_mpid)
        return false;
    return peer.phase == (hosts_key_server(link) ? TOPOLOGY_PHASE_DOWN : TOPOLOGY_PHASE_JOINING);
}

// Whether the other end is still the one, and in the life, that we went up with.
bool pair_is_broken(const agreement& agreed) {
    return agreed.peer.life != agreed.up_with || agreed.peer.phase == TOPOLOGY_PHASE_OFF ||
           agreed.peer.phase == TOPOLOGY_PHASE_NO_DAEMON;
}

bool waits_for_keys(const agreement& agreed) {
    return (agreed.stands == standing::STARTING || agreed.stands == standing::JOINING) &&
           agreed.peer.phase != TOPOLOGY_PHASE_PORT_DOWN;
}

void plan_probe(agreement& agreed, uint64_t now_ms) {
    agreed.probe_at_ms = now_ms + std::min(pause_first_ms << std::min(agreed.probes, 10u), pause_max_ms);
    agreed.probes++;
}

// A port that is down looks like one that the daemon released because some other client closed. Then it has
// forgotten the link, and would not secure the port when its cable is back; so it is published anew.
void probe(link_record& link, uint64_t now_ms) {
    if (link.pending == link_request::NONE && link.held == held_link::LINK)
        link.held = held_link::UNKNOWN;
    plan_probe(link.agreed, now_ms);
}

// The port carries clear frames, though its link is published up.
bool port_is_down(link_record& link, bool is_answer, uint64_t now_ms) {
    switch (link.agreed.stands) {
    case standing::DOWN:
    case standing::PORT_DOWN:
        return false;
    case standing::STARTING:
        change_standing(link, standing::PORT_DOWN, now_ms);
        plan_probe(link.agreed, now_ms);
        return true;
    case standing::JOINING:
        // A port whose last association ended without protection answers so as soon as it has joined, and
        // the keys that come with the other end put it right. A cable that was pulled answers so too.
        if (is_answer) {
            link.agreed.patient_since_ms = now_ms + patience_alone_ms - patience_ms;
            return false;
        }
        break;
    case standing::ENCRYPTED:
        break;
    }
    // Its cable is out, or the daemon released it and has forgotten the link. Publishing anew is right for
    // both.
    start_over(link, TOPOLOGY_TROUBLE_NONE, now_ms);
    link.held = held_link::UNKNOWN;
    link.pending = link_request::NONE;
    link.pending_reference = 0;
    return true;
}

bool port_joins(link_record& link, bool is_answer, uint64_t now_ms) {
    switch (link.agreed.stands) {
    case standing::DOWN:
        return false;
    case standing::STARTING:
    case standing::PORT_DOWN:
    case standing::JOINING:
        // The daemon answers when the port is encrypted, or cannot be.
        if (is_answer)
            start_over(link, TOPOLOGY_TROUBLE_FAILED, now_ms);
        else if (link.agreed.stands != standing::JOINING)
            change_standing(link, standing::JOINING, now_ms);
        else
            return false;
        return true;
    case standing::ENCRYPTED:
        start_over(link, TOPOLOGY_TROUBLE_BROKEN, now_ms);
        return true;
    }
    return false;
}

} // namespace

bool wants_security(const link_record& link) {
    link_attributes wanted = link.file;
    wanted.status = link.set_status.value_or(wanted.status);
    return link.is_in_file && asks_for_security(wanted);
}

bool is_published_up(const link_record& link) {
    return link.held == held_link::LINK && asks_for_security(link.held_attributes);
}

topology_phase phase_of(const link_record& link, bool has_daemon, uint64_t now_ms) {
    if (!wants_security(link))
        return TOPOLOGY_PHASE_OFF;
    if (!has_daemon)
        return TOPOLOGY_PHASE_NO_DAEMON;
    switch (link.agreed.stands) {
    case standing::DOWN:
        break;
    case standing::STARTING:
        return TOPOLOGY_PHASE_STARTING;
    case standing::PORT_DOWN:
        return TOPOLOGY_PHASE_PORT_DOWN;
    case standing::JOINING:
        return TOPOLOGY_PHASE_JOINING;
    case standing::ENCRYPTED:
        return TOPOLOGY_PHASE_ENCRYPTED;
    }
    if (!is_settled(link))
        return TOPOLOGY_PHASE_STOPPING;
    return is_pausing(link.agreed, now_ms) ? TOPOLOGY_PHASE_PAUSED : TOPOLOGY_PHASE_DOWN;
}

const char* standing_to_str(standing stands) {
    switch (stands) {
    case standing::DOWN:
        return "down";
    case standing::STARTING:
        return "starting";
    case standing::PORT_DOWN:
        return "port down";
    case standing::JOINING:
        return "joining";
    case standing::ENCRYPTED:
        return "encrypted";
    }
    return "unknown";
}

void start_life(link_record& link, uint64_t now_ms) {
    // Later than any that an earlier record of the port, or an earlier process, had.
    link.agreed.life = std::max(link.agreed.life + 1, static_cast<uint32_t>(now_ms));
    if (link.agreed.life == 0)
        link.agreed.life = 1;
}

void peer_found(link_record& link) {
    link.agreed.peer_is_found = true;
    link.agreed.told = {};
}

void peer_lost(link_record& link, uint64_t now_ms) {
    agreement& agreed = link.agreed;
    agreed.peer_is_found = false;
    agreed.peer = {};
    agreed.refusal = {};
    agreed.answered_life = 0;
    start_over(link, TOPOLOGY_TROUBLE_NONE, now_ms);
    forget_failures(agreed);
}

bool peer_spoke(link_record& link, const peer_word& word, uint64_t now_ms) {
    agreement& agreed = link.agreed;
    // Whatever it makes of its way is a reason to wait for what comes of it.
    if (word.phase != agreed.peer.phase)
        agreed.patient_since_ms = now_ms;
    agreed.peer = word;
    agreed.refusal = {};
    // Once for each of its lives: one that never listens is not told for ever.
    if (word.seen_life != 0 || word.life == agreed.answered_life)
        return false;
    agreed.answered_life = word.life;
    return true;
}

void peer_refused(link_record& link, const trouble_words& why) {
    link.agreed.peer = {};
    link.agreed.refusal = why;
}

void agreement_without_daemon(link_record& link, uint64_t now_ms) {
    start_over(link, TOPOLOGY_TROUBLE_NONE, now_ms);
    forget_failures(link.agreed);
}

bool port_spoke(link_record& link, uint32_t oper_state, uint32_t encryption_state, bool is_answer,
                uint64_t now_ms) {
    if (link.agreed.stands == standing::DOWN || !is_published_up(link))
        return false;
    // While a port joins, the daemon may show it as encrypted with what is left of an earlier association.
    if (oper_state != OXMSI_PORT_OPER_STATE_ENABLED)
        return port_joins(link, is_answer, now_ms);
    if (encryption_state != OXMSI_PORT_ENCRYPTION_STATE_ENABLED)
        return port_is_down(link, is_answer, now_ms);
    if (link.agreed.stands == standing::ENCRYPTED)
        return false;
    change_standing(link, standing::ENCRYPTED, now_ms);
    return true;
}

bool decide(link_record& link, bool has_daemon, uint64_t now_ms) {
    agreement& agreed = link.agreed;
    if (agreed.stands == standing::DOWN) {
        if (!may_go_up(link, has_daemon, now_ms))
            return false;
        change_standing(link, standing::STARTING, now_ms);
        agreed.up_with = agreed.peer.life;
        return true;
    }
    if (!wants_security(link) || pair_is_broken(agreed)) {
        start_over(link, TOPOLOGY_TROUBLE_NONE, now_ms);
        return true;
    }
    if (waits_for_keys(agreed) && now_ms - agreed.patient_since_ms >= patience_ms) {
        start_over(link, TOPOLOGY_TROUBLE_NO_KEYS, now_ms);
        return true;
    }
    if (agreed.stands == standing::PORT_DOWN && now_ms >= agreed.probe_at_ms)
        probe(link, now_ms);
    return false;
}

uint64_t next_decision_ms(const link_record& link) {
    const agreement& agreed = link.agreed;
    if (agreed.stands == standing::DOWN)
        return agreed.pause_until_ms;
    if (agreed.stands == standing::PORT_DOWN)
        return agreed.probe_at_ms;
    return waits_for_keys(agreed) ? agreed.patient_since_ms + patience_ms : 0;
}

} // namespace topologyd
