#include "services/idl-topologyd/publication.h"

namespace topologyd {

namespace {

using namespace tavu;

void change_held(publication& of, held_link held) {
    change(of.held, held, held_link_changes);
}

void change_subscription(publication& of, subscription_state state) {
    change(of.subscription, state, subscription_state_changes);
}

// Whether an update leads from one to the other. The id and the hunt path are not in it. The two ends of the
// link are, but they name the connectivity association: a port that has joined one stays there until the
// link is deleted.
bool update_suffices(const link_attributes& from, const link_attributes& to) {
    link_attributes updated = from;
    updated.du_type = to.du_type;
    updated.status = to.status;
    return updated == to;
}

bool may_stay_unanswered(const publication& of) {
    return of.pending != link_request::remove && asks_for_security(of.held_attributes);
}

// What the daemon holds after it has refused the pending request.
held_link held_after_reject(const publication& of, uint32_t reason) {
    switch (of.pending) {
    case link_request::none:
        break;
    case link_request::add:
        return reason == OXMSI_REJ_MAX_NUMBER_OF_LINKS_REACHED ? held_link::unknown : held_link::nothing;
    case link_request::update:
        return reason == OXMSI_REJ_UNKNOWN_PORT_NAME ? held_link::nothing : held_link::unknown;
    case link_request::remove:
        return reason == OXMSI_REJ_LINK_NOT_FOUND || reason == OXMSI_REJ_UNKNOWN_PORT_NAME
                   ? held_link::nothing
                   : held_link::unknown;
    }
    return of.held;
}

void end_pending(publication& of) {
    of.pending = link_request::none;
    of.pending_reference = 0;
}

} // namespace

bool asks_for_security(const link_attributes& link) {
    return link.du_type == OXMSI_DU_TYPE_3 &&
           (link.status == OXMSI_LTM_LINK_STATUS_UP || link.status == OXMSI_LTM_LINK_STATUS_MACSEC_PENDING);
}

bool is_settled(const publication& of, const std::optional<link_attributes>& wanted) {
    if (of.pending != link_request::none)
        return false;
    if (!wanted)
        return of.held == held_link::nothing;
    return of.held == held_link::link && of.held_attributes == *wanted;
}

bool is_published_up(const publication& of) {
    return of.held == held_link::link && asks_for_security(of.held_attributes);
}

due_request next_request(const publication& of, const wanted_publication& wanted, uint64_t now_ms) {
    if (of.requests.is_pausing(now_ms) || (of.pending != link_request::none && !may_stay_unanswered(of)))
        return {};
    switch (of.held) {
    case held_link::nothing:
        return wanted.link ? due_request{link_request::add, *wanted.link} : due_request{};
    case held_link::unknown:
        return {link_request::remove, of.held_attributes};
    case held_link::link:
        break;
    }
    if (!wanted.link || !update_suffices(of.held_attributes, *wanted.link))
        return {link_request::remove, of.held_attributes};
    bool is_held = of.held_attributes == *wanted.link;
    if (!is_held || (wanted.wants_answer && of.pending == link_request::none))
        return {link_request::update, *wanted.link};
    return {};
}

bool subscription_is_due(const publication& of, uint64_t now_ms) {
    return of.subscription == subscription_state::none && !of.subscribing.is_pausing(now_ms);
}

void want_changed(publication& of) {
    of.requests.succeed();
    of.subscribing.succeed();
}

void request_sent(publication& of, const due_request& sent, uint32_t number, uint32_t reference,
                  uint64_t now_ms) {
    if (sent.request != link_request::remove)
        of.published_ms = now_ms;
    change_held(of, sent.request == link_request::remove ? held_link::nothing : held_link::link);
    of.held_attributes = sent.attributes;
    of.pending = sent.request;
    of.pending_reference = reference;
    of.last_request = number;
    of.requested_ms = now_ms;
}

void request_answered(publication& of, const daemon_answer& answer, uint64_t now_ms) {
    of.last_answer = answer;
    of.answered_ms = now_ms;
    if (answer.reason == 0) {
        of.requests.succeed();
    } else {
        change_held(of, held_after_reject(of, answer.reason));
        // That the link is not there is news, not a failure: what is due next depends on it alone.
        if (answer.reason != OXMSI_REJ_LINK_NOT_FOUND)
            of.requests.fail(now_ms);
    }
    if (of.held != held_link::link)
        of.published_ms = 0;
    end_pending(of);
}

void subscription_sent(publication& of, uint32_t reference) {
    change_subscription(of, subscription_state::requested);
    of.subscription_reference = reference;
}

void subscription_refused(publication& of, uint64_t now_ms) {
    change_subscription(of, subscription_state::none);
    of.subscription_reference = 0;
    of.subscribing.fail(now_ms);
}

void subscription_confirmed(publication& of) {
    change_subscription(of, subscription_state::active);
    of.subscribing.succeed();
}

bool status_told(publication& of, uint32_t oper_state, uint32_t encryption_state, uint64_t now_ms) {
    of.state_told_ms = now_ms;
    if (of.oper_state == oper_state && of.encryption_state == encryption_state)
        return false;
    of.oper_state = oper_state;
    of.encryption_state = encryption_state;
    of.state_since_ms = now_ms;
    return true;
}

void doubt_held_link(publication& of, doubt when) {
    if (when == doubt::unless_pending && (of.pending != link_request::none || of.held != held_link::link))
        return;
    change_held(of, held_link::unknown);
    end_pending(of);
}

void daemon_lost(publication& of) {
    publication fresh{};
    fresh.held_attributes = of.held_attributes;
    fresh.last_request = of.last_request;
    fresh.requested_ms = of.requested_ms;
    fresh.last_answer = of.last_answer;
    fresh.answered_ms = of.answered_ms;
    of = fresh;
}

} // namespace topologyd
