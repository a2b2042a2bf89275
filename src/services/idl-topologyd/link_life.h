// The life of one link between what is wanted of it and what the daemon holds: decides which request is due,
// and takes in what the daemon says. Sends nothing and knows no time but the one it is told, so the same
// decisions can be put to it in any order.
//
// What is wanted comes together in wanted_link() alone: the file's attributes, with a status that somebody
// set over the file's, and down as long as the two ends of a link that is to be secured do not agree on it.
#pragma once

#include <cstdint>
#include <optional>

#include "services/idl-topologyd/agreement.h"
#include "services/idl-topologyd/links_file.h"

namespace topologyd {

enum class link_request { NONE, ADD, UPDATE, DELETE };

// What the daemon has of the port once it has taken our last request.
enum class held_link {
    NOTHING,
    LINK,
    UNKNOWN, // perhaps a link, perhaps not ours: it is deleted before ours is added
};

enum class subscription_state {
    NONE,
    REQUESTED, // until the first indication
    ACTIVE,
};

// An answer to one of our requests, or a status indication.
struct daemon_answer {
    uint32_t number;
    uint32_t reason; // oxmsi_reject_reason of a reject, 0 otherwise
    uint32_t oper_state;
    uint32_t encryption_state;
};

// The pause after the n-th failure in a row: 1, 2, 4 ... s, at most 30 s.
struct back_off {
    uint32_t failures = 0;
    uint64_t retry_at_ms = 0; // 0: no pause

    void fail(uint64_t now_ms);
    void succeed() { *this = {}; }
    bool is_pausing(uint64_t now_ms) const { return now_ms < retry_at_ms; }
};

struct link_record {
    link_attributes file; // the last the file said; its port is the record's name
    bool is_in_file = true;
    std::optional<uint32_t> set_status{}; // over the file's
    agreement agreed{};

    held_link held = held_link::NOTHING;
    link_attributes held_attributes{};
    link_request pending = link_request::NONE;
    uint32_t pending_reference = 0;
    back_off requests{};

    subscription_state subscription = subscription_state::NONE;
    uint32_t subscription_reference = 0;
    back_off subscribing{};

    // The facts that are shown. Times are 0 for never.
    uint64_t published_ms = 0; // the present attributes were first sent to the present daemon
    uint32_t last_request = 0;
    uint64_t requested_ms = 0;
    daemon_answer last_answer{};
    uint64_t answered_ms = 0;
    uint32_t oper_state = tavu::OXMSI_PORT_OPER_STATE_UNINITIALIZED;
    uint32_t encryption_state = tavu::OXMSI_PORT_ENCRYPTION_STATE_UNINITIALIZED;
    uint64_t state_since_ms = 0;
    uint64_t state_told_ms = 0;
};

// The port is to be secured.
bool asks_for_security(const link_attributes& link);
// Nothing when the link is to go.
std::optional<link_attributes> wanted_link(const link_record& link);

// The daemon holds the link as it is wanted, and has confirmed it.
bool is_settled(const link_record& link);
// The same for what the file or the operator want: a link that is to be secured is, or its port is down.
bool is_fulfilled(const link_record& link);
// Nothing of the link is left with the daemon, and nothing is wanted of it.
bool is_over(const link_record& link);

struct due_request {
    link_request request = link_request::NONE;
    link_attributes attributes{};
};

// What is to be sent now. A request waits for the answer of the one before, since the daemon confirms an
// unanswered one at once, with whatever status the port has, when the next arrives. A request to secure the
// port may stay unanswered as long as the peer is away, so that one is overtaken. A port that began to join
// when its cable was put in is asked for once more, since the daemon tells nothing but an answer of success.
due_request next_request(const link_record& link, uint64_t now_ms);
bool subscription_is_due(const link_record& link, uint64_t now_ms);

// The link as it is wanted has changed: it is asked for without the pause of earlier refusals.
void want_changed(link_record& link);
void request_sent(link_record& link, const due_request& sent, uint32_t number, uint32_t reference,
                  uint64_t now_ms);
// The answer to the pending request.
void request_answered(link_record& link, const daemon_answer& answer, uint64_t now_ms);
// From a confirm or an indication. True when the status changed.
bool status_told(link_record& link, uint32_t oper_state, uint32_t encryption_state, uint64_t now_ms);
// The daemon is gone, and with it what it held.
void daemon_lost(link_record& link, uint64_t now_ms);

} // namespace topologyd
