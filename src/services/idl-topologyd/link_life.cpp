#include "services/idl-topologyd/link_life.h"

#include <algorithm>

namespace topologyd {

namespace {

using namespace tavu;

constexpr uint64_t pause_first_ms = 1000;
constexpr uint64_t pause_max_ms = 30000;

// Whether an update leads from one to the other. The id and the hunt path are not in it. The two ends of the
// link are, but they name the connectivity association: a port that has joined one stays there until the
// link is deleted.
bool update_suffices(const link_attributes& from, const link_attributes& to) {
    link_attributes updated = from;
    updated.du_type = to.du_type;
    updated.status = to.status;
    return updated == to;
}

bool may_stay_unanswered(const link_record& link) {
    return link.pending != link_request::DELETE && asks_for_security(link.held_attributes);
}

void take_reject(link_record& link, uint32_t reason, uint64_t now_ms) {
    bool names_nothing = reason == OXMSI_REJ_LINK_NOT_FOUND || reason == OXMSI_REJ_UNKNOWN_PORT_NAME;
    switch (link.pending) {
    case link_request::NONE:
        return;
    case link_request::ADD:
        link.held = reason == OXMSI_REJ_MAX_NUMBER_OF_LINKS_REACHED ? held_link::UNKNOWN : held_link::NOTHING;
        break;
    case link_request::UPDATE:
        link.held = reason == OXMSI_REJ_UNKNOWN_PORT_NAME ? held_link::NOTHING : held_link::UNKNOWN;
        break;
    case link_request::DELETE:
        link.held = names_nothing ? held_link::NOTHING : held_link::UNKNOWN;
        break;
    }
    // That the link is not there is news, not a failure: what is due next depends on it alone.
    if (reason != OXMSI_REJ_LINK_NOT_FOUND)
        link.requests.fail(now_ms);
}

} // namespace

bool asks_for_security(const link_attributes& link) {
    return link.du_type == OXMSI_DU_TYPE_3 &&
           (link.status == OXMSI_LTM_LINK_STATUS_UP || link.status == OXMSI_LTM_LINK_STATUS_MACSEC_PENDING);
}

void back_off::fail(uint64_t now_ms) {
    uint64_t pause = std::min(pause_first_ms << std::min(failures, 10u), pause_max_ms);
    failures++;
    retry_at_ms = now_ms + pause;
}

std::optional<link_attributes> wanted_link(const link_record& link) {
    if (!link.is_in_file)
        return std::nullopt;
    link_attributes wanted = link.file;
    wanted.status = link.set_status.value_or(wanted.status);
    if (asks_for_security(wanted) && link.agreed.stands == standing::DOWN)
        wanted.status = OXMSI_LTM_LINK_STATUS_DOWN;
    return wanted;
}

bool is_settled(const link_record& link) {
    if (link.pending != link_request::NONE)
        return false;
    std::optional<link_attributes> wanted = wanted_link(link);
    if (!wanted)
        return link.held == held_link::NOTHING;
    return link.held == held_link::LINK && link.held_attributes == *wanted;
}

bool is_fulfilled(const link_record& link) {
    bool has_come = link.agreed.stands == standing::ENCRYPTED || link.agreed.stands == standing::PORT_DOWN;
    return is_settled(link) && (has_come || !wants_security(link));
}

bool is_over(const link_record& link) {
    return !link.is_in_file && is_settled(link);
}

due_request next_request(const link_record& link, uint64_t now_ms) {
    if (link.requests.is_pausing(now_ms))
        return {};
    if (link.pending != link_request::NONE && !may_stay_unanswered(link))
        return {};
    std::optional<link_attributes> wanted = wanted_link(link);
    switch (link.held) {
    case held_link::NOTHING:
        if (wanted)
            return {link_request::ADD, *wanted};
        return {};
    case held_link::UNKNOWN:
        return {link_request::DELETE, link.held_attributes};
    case held_link::LINK:
        if (wanted && link.held_attributes == *wanted) {
            bool is_owed_an_answer =
                link.agreed.stands == standing::JOINING && link.pending == link_request::NONE;
            return is_owed_an_answer ? due_request{link_request::UPDATE, *wanted} : due_request{};
        }
        if (wanted && update_suffices(link.held_attributes, *wanted))
            return {link_request::UPDATE, *wanted};
        return {link_request::DELETE, link.held_attributes};
    }
    return {};
}

bool subscription_is_due(const link_record& link, uint64_t now_ms) {
    return link.is_in_file && link.subscription == subscription_state::NONE &&
           !link.subscribing.is_pausing(now_ms);
}

void want_changed(link_record& link) {
    link.requests.succeed();
    link.subscribing.succeed();
    link.agreed.pause_until_ms = 0;
    link.agreed.failures = 0;
}

void request_sent(link_record& link, const due_request& sent, uint32_t number, uint32_t reference,
                  uint64_t now_ms) {
    if (sent.request != link_request::DELETE)
        link.published_ms = now_ms;
    link.held = sent.request == link_request::DELETE ? held_link::NOTHING : held_link::LINK;
    link.held_attributes = sent.attributes;
    link.pending = sent.request;
    link.pending_reference = reference;
    link.last_request = number;
    link.requested_ms = now_ms;
}

void request_answered(link_record& link, const daemon_answer& answer, uint64_t now_ms) {
    link.last_answer = answer;
    link.answered_ms = now_ms;
    if (answer.reason == 0)
        link.requests.succeed();
    else
        take_reject(link, answer.reason, now_ms);
    if (link.held != held_link::LINK)
        link.published_ms = 0;
    link.pending = link_request::NONE;
    link.pending_reference = 0;
}

bool status_told(link_record& link, uint32_t oper_state, uint32_t encryption_state, uint64_t now_ms) {
    link.state_told_ms = now_ms;
    if (link.oper_state == oper_state && link.encryption_state == encryption_state)
        return false;
    link.oper_state = oper_state;
    link.encryption_state = encryption_state;
    link.state_since_ms = now_ms;
    return true;
}

void daemon_lost(link_record& link, uint64_t now_ms) {
    agreement_without_daemon(link, now_ms);
    link.held = held_link::NOTHING;
    link.pending = link_request::NONE;
    link.pending_reference = 0;
    link.requests.succeed();
    link.subscription = subscription_state::NONE;
    link.subscription_reference = 0;
    link.subscribing.succeed();
    link.published_ms = 0;
    link.oper_state = OXMSI_PORT_OPER_STATE_UNINITIALIZED;
    link.encryption_state = OXMSI_PORT_ENCRYPTION_STATE_UNINITIALIZED;
    link.state_since_ms = 0;
    link.state_told_ms = 0;
}

} // namespace topologyd
