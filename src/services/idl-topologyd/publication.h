// What the daemon holds of one link: decides which request is due so that it comes to hold what it is told
// to, and takes in what the daemon answers. It knows nothing of the other end. Sends nothing and knows no
// time but the one it is told, so the same decisions can be put to it in any order.
//
// Why a link goes through deletion where an update would seem to do: docs/decisions/agreed-link-life.md.
#pragma once

#include <cstdint>
#include <optional>

#include "base/state_changes.h"
#include "services/idl-topologyd/back_off.h"
#include "services/idl-topologyd/links_file.h"

namespace topologyd {

using tavu::to;

enum class link_request { none, add, update, remove };

// What the daemon has of the port once it has taken our last request.
enum class held_link {
    nothing,
    link,
    unknown, // perhaps a link, perhaps not ours: it is deleted before ours is added
};
constexpr uint32_t held_link_changes[] = {
    to(held_link::link) | to(held_link::unknown),
    to(held_link::nothing) | to(held_link::unknown),
    to(held_link::nothing),
};

enum class subscription_state {
    none,
    requested, // until the first indication
    active,
};
constexpr uint32_t subscription_state_changes[] = {
    to(subscription_state::requested),
    to(subscription_state::none) | to(subscription_state::active),
    to(subscription_state::none) | to(subscription_state::requested),
};

// An answer to one of our requests, or a status indication.
struct daemon_answer {
    uint32_t number;
    uint32_t reason; // oxmsi_reject_reason of a reject, 0 otherwise
    uint32_t oper_state;
    uint32_t encryption_state;
};

struct publication {
    held_link held = held_link::nothing;
    link_attributes held_attributes{};
    link_request pending = link_request::none;
    uint32_t pending_reference = 0;
    back_off requests{};

    subscription_state subscription = subscription_state::none;
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

// What the daemon is to hold: the link, or nothing when it is to go.
struct wanted_publication {
    std::optional<link_attributes> link{};
    // The port joins, and no request is pending whose answer would tell how that ends.
    bool wants_answer = false;
};

// The daemon holds what is wanted, and has confirmed it.
bool is_settled(const publication& of, const std::optional<link_attributes>& wanted);
// The daemon holds the link published up.
bool is_published_up(const publication& of);

struct due_request {
    link_request request = link_request::none;
    link_attributes attributes{};
};

// What is to be sent now. A request waits for the answer of the one before, since the daemon confirms an
// unanswered one at once, with whatever status the port has, when the next arrives. A request to secure the
// port may stay unanswered as long as the peer is away, so that one is overtaken. A port that began to join
// when its cable was put in is asked for once more, since the daemon tells nothing but an answer of success.
due_request next_request(const publication& of, const wanted_publication& wanted, uint64_t now_ms);
bool subscription_is_due(const publication& of, uint64_t now_ms);

// What is wanted has changed: it is asked for without the pause of earlier refusals.
void want_changed(publication& of);
void request_sent(publication& of, const due_request& sent, uint32_t number, uint32_t reference,
                  uint64_t now_ms);
// The answer to the pending request.
void request_answered(publication& of, const daemon_answer& answer, uint64_t now_ms);
void subscription_sent(publication& of, uint32_t reference);
void subscription_refused(publication& of, uint64_t now_ms);
void subscription_confirmed(publication& of);
// From a confirm or an indication. True when the status changed.
bool status_told(publication& of, uint32_t oper_state, uint32_t encryption_state, uint64_t now_ms);
// The daemon may have forgotten the link. An answer that is pending is not waited for, unless the link may be
// asked about only when there is none.
enum class doubt { at_once, unless_pending };
void doubt_held_link(publication& of, doubt when);
// The daemon is gone, and with it what it held.
void daemon_lost(publication& of);

} // namespace topologyd
