#include "services/idl-topologyd/topology.h"

#include <algorithm>

#include "base/ignore_result.h"
#include "base/trace.h"
#include "protocols/message_numbers.h"
#include "protocols/topology_messages.h"
#include "services/common/one_shot.h"
#include "services/idl-topologyd/clock.h"
#include "services/idl-topologyd/faults.h"
#include "services/idl-topologyd/link_talk.h"
#include "services/idl-topologyd/oxmsi_client.h"
#include "services/idl-topologyd/peers.h"

namespace topologyd {

namespace {

using namespace tavu;
using services::link_status_to_word;
using services::topology_peer_link_ind;

struct {
    topology_callbacks callbacks = {};
    std::vector<link_record> links;
    uint32_t next_reference = 1;
    services::one_shot retry{LINK_RETRY_IND};
    services::one_shot look{SECY_LOOK_IND};
} self;

const char* enabled_to_word(uint32_t state) {
    return state == OXMSI_PORT_OPER_STATE_ENABLED ? "enabled" : "disabled";
}

template<class Predicate>
link_record* find_link(Predicate accepts) {
    auto found = std::find_if(self.links.begin(), self.links.end(), accepts);
    return found == self.links.end() ? nullptr : &*found;
}

void subscribe(link_record& link) {
    subscription_sent(link.published, oxmsi_client_subscribe(link.file.port));
}

// Begins the subscription anew, which tells the port's status as it is once the daemon has come to this
// request. The daemon tells a subscriber what differs from what it told that one last, and no success.
void renew_subscription(link_record& link) {
    if (link.published.subscription == subscription_state::none)
        return;
    ignore_result(oxmsi_client_unsubscribe(link.file.port));
    subscribe(link);
}

void trace_request(const due_request& due) {
    const link_attributes& link = due.attributes;
    if (due.request == link_request::remove)
        TRACE_INFO("TOPOLOGYD: Port '%s': link %u withdrawn", link.port.c_str(), link.id);
    else
        TRACE_INFO("TOPOLOGYD: Port '%s': link %u to port '%s' of MP %u %s, %s, status %s", link.port.c_str(),
                   link.id, link.remote_port.c_str(), link.remote_mpid,
                   due.request == link_request::add ? "published" : "updated",
                   services::du_type_to_word(link.du_type), link_status_to_word(link.status));
}

// Sends what is due for one link.
void pursue(link_record& link) {
    if (link.is_in_file && subscription_is_due(link.published, now_ms()))
        subscribe(link);
    due_request due = next_request(link.published, wanted_of(link), now_ms());
    if (due.request == link_request::none)
        return;
    trace_request(due);
    uint32_t reference = oxmsi_client_send_link(due);
    request_sent(link.published, due, oxmsi_request_number(due.request), reference, now_ms());
    if (link.agreed.state == agreement_state::starting && is_published_up(link.published))
        renew_subscription(link);
    self.callbacks.handle_changed();
}

// What the agreement wishes of the publication.
void grant(link_record& link, wish wished) {
    switch (wished) {
    case wish::none:
        break;
    case wish::publish_anew:
        doubt_held_link(link.published, doubt::at_once);
        break;
    case wish::publish_anew_unless_pending:
        doubt_held_link(link.published, doubt::unless_pending);
        break;
    }
}

void arm_retry() {
    uint64_t now = now_ms();
    uint64_t next = UINT64_MAX;
    for (const link_record& link : self.links) {
        for (uint64_t at : {link.published.requests.until_ms, link.published.subscribing.until_ms,
                            next_decision_ms(link.agreed), next_talk_ms(link)}) {
            if (at > now)
                next = std::min(next, at);
        }
    }
    self.retry.stop();
    if (next != UINT64_MAX)
        self.retry.arm(static_cast<uint32_t>(next - now));
}

bool is_encrypted(const link_record& link) {
    return link.agreed.state == agreement_state::encrypted;
}

void arm_look() {
    const bool any = std::any_of(self.links.begin(), self.links.end(), is_encrypted);
    if (!any)
        self.look.stop();
    else if (!self.look.is_armed())
        self.look.arm(look_interval_ms);
}

void pursue_all() {
    const daemon_contact daemon = oxmsi_client_contact();
    for (link_record& link : self.links) {
        grant(link, decide(link.agreed, situation_of(link, daemon), now_ms()));
        if (daemon != daemon_contact::none)
            pursue(link);
        if (update_fault(link, daemon, now_ms()))
            self.callbacks.handle_changed();
        tell_other_end(link, daemon, now_ms());
    }
    for (const link_record& link : self.links) {
        if (is_over(link) && link.published.subscription != subscription_state::none)
            ignore_result(oxmsi_client_unsubscribe(link.file.port));
    }
    if (std::erase_if(self.links, is_over) > 0)
        self.callbacks.handle_changed();
    arm_retry();
    arm_look();
}

// What was seen of the SecYs.
void take_findings(link_record& link, services::topology_fault_code fault) {
    if (fault != services::TOPOLOGY_FAULT_NONE)
        agreement_undone(link.agreed, fault, now_ms());
}

void tell_look(const link_record& link, const secy_look& own) {
    services::topology_peer_secy_ind word{};
    word.header.procedure_reference = link.agreed.reference;
    word.port = link.file.port;
    word.remote_port = link.file.remote_port;
    word.incarnation = link.agreed.incarnation;
    word.seen_incarnation = link.agreed.up_with;
    fill_look(word, own);
    peers_tell(link.file.hunt_path, word);
}

void look_at_all() {
    for (link_record& link : self.links) {
        secy_look own;
        if (!is_encrypted(link) || !look_at_secy(link.file.port, own))
            continue;
        take_findings(link, take_own_look(link.watched, own, link.file.port.c_str(), now_ms()));
        if (is_encrypted(link))
            tell_look(link, own);
    }
    self.callbacks.handle_changed();
    pursue_all();
}

void handle_connected() {
    pursue_all();
}

void handle_disconnected() {
    for (link_record& link : self.links) {
        agreement_without_daemon(link.agreed, now_ms());
        daemon_lost(link.published);
    }
    pursue_all();
}

void handle_progress() {
    self.callbacks.handle_changed();
    pursue_all();
}

void handle_silence_ended() {
    for (link_record& link : self.links)
        agreement_undone(link.agreed, services::TOPOLOGY_FAULT_NONE, now_ms());
    pursue_all();
}

void take_subscription_reject(link_record& link, const daemon_answer& answer) {
    TRACE_ERROR("TOPOLOGYD: Port '%s': the subscription was refused: %s", link.file.port.c_str(),
                services::reject_reason_in_words(answer.reason));
    // One that is left from before is ended, so that the next attempt is told the status at once.
    if (answer.reason == OXMSI_REJ_SUBSCRIPTION_ALREADY_EXIST)
        ignore_result(oxmsi_client_unsubscribe(link.file.port));
    subscription_refused(link.published, now_ms());
}

void trace_answer(const link_record& link, const daemon_answer& answer) {
    const char* port = link.file.port.c_str();
    const char* request = services::request_in_words(link.published.last_request);
    if (answer.reason == 0)
        TRACE_INFO("TOPOLOGYD: Port '%s': %s, confirmed after %llu ms: controlled port %s, encryption %s",
                   port, request, static_cast<unsigned long long>(now_ms() - link.published.requested_ms),
                   enabled_to_word(answer.oper_state), enabled_to_word(answer.encryption_state));
    else
        TRACE_ERROR("TOPOLOGYD: Port '%s': %s, refused: %s", port, request,
                    services::reject_reason_in_words(answer.reason));
}

// True when it changed how the link stands.
bool take_status(link_record& link, const daemon_answer& status, bool is_answer) {
    wish wished = wish::none;
    bool has_changed =
        is_published_up(link.published) &&
        port_reported(link.agreed, status.oper_state, status.encryption_state, is_answer, now_ms(), wished);
    grant(link, wished);
    if (has_changed && is_encrypted(link))
        begin_watch(link.watched);
    // The subscriber was not told of it, so the end of it would be no news.
    if (has_changed && is_answer && is_encrypted(link))
        renew_subscription(link);
    return has_changed;
}

void handle_answer(uint32_t reference, const daemon_answer& answer) {
    if (link_record* link = find_link([reference](const link_record& candidate) {
            return candidate.published.pending != link_request::none &&
                   candidate.published.pending_reference == reference;
        })) {
        trace_answer(*link, answer);
        request_answered(link->published, answer, now_ms());
        if (answer.reason == 0) {
            ignore_result(status_told(link->published, answer.oper_state, answer.encryption_state, now_ms()));
            take_status(*link, answer, true);
        }
    } else if (link_record* subscriber = find_link([reference](const link_record& candidate) {
                   return candidate.published.subscription == subscription_state::requested &&
                          candidate.published.subscription_reference == reference;
               });
               subscriber && answer.number == OXMSI_PORT_STATE_CHANGE_SUBSCRIBE_REJ) {
        take_subscription_reject(*subscriber, answer);
    } else {
        TRACE("TOPOLOGYD: %s answers a request that was overtaken, procedure reference=%u",
              oxmsi_msg_no_to_str(answer.number), reference);
        return;
    }
    self.callbacks.handle_changed();
    pursue_all();
}

void handle_indication(uint32_t reference, const port_name& port, const daemon_answer& status) {
    link_record* link = find_link([reference, &port](const link_record& candidate) {
        return candidate.published.subscription != subscription_state::none &&
               candidate.published.subscription_reference == reference && candidate.file.port == port;
    });
    if (!link) {
        TRACE("TOPOLOGYD: An indication for port '%s' belongs to no subscription, procedure reference=%u",
              port.printable().c_str(), reference);
        return;
    }
    subscription_confirmed(link->published);
    bool is_news = status_told(link->published, status.oper_state, status.encryption_state, now_ms());
    if (!take_status(*link, status, false) && !is_news)
        return;
    TRACE_INFO("TOPOLOGYD: Port '%s': controlled port %s, encryption %s", link->file.port.c_str(),
               enabled_to_word(status.oper_state), enabled_to_word(status.encryption_state));
    self.callbacks.handle_changed();
    pursue_all();
}

constexpr oxmsi_client_callbacks client_callbacks = {
    .handle_connected = handle_connected,
    .handle_disconnected = handle_disconnected,
    .handle_progress = handle_progress,
    .handle_silence_ended = handle_silence_ended,
    .handle_answer = handle_answer,
    .handle_indication = handle_indication,
};

void handle_peer_found(const oka_hunt_path& path) {
    for (link_record& link : self.links) {
        if (link.file.hunt_path == path) {
            peer_found(link.agreed);
            tell_again(link);
        }
    }
    pursue_all();
}

void handle_peer_lost(const oka_hunt_path& path) {
    for (link_record& link : self.links) {
        if (link.file.hunt_path == path)
            peer_lost(link.agreed, now_ms());
    }
    pursue_all();
}

const char* handle_peer_word(const topology_peer_link_ind& said, oka_mailbox sender) {
    link_record* link = find_link([&said](const link_record& candidate) {
        return candidate.is_in_file && candidate.file.port == said.remote_port;
    });
    if (!link || link->file.du_type != OXMSI_DU_TYPE_3)
        return "the links file there has no link of type-3 on the port that remote-port names";
    oka_mailbox peer = peers_find(link->file.hunt_path);
    if (peer != sender) {
        // One that is not found yet is told of the link when it is, and then tells again.
        return peer == OKA_MAILBOX_NONE ? nullptr : "hunt-path of the links file there leads to another unit";
    }
    if (!(link->file.remote_port == said.port))
        return "the links file there has another remote-port for this link";
    if (peer_reported(link->agreed, hear(said, now_ms()), now_ms()))
        tell_again(*link);
    pursue_all();
    return nullptr;
}

// Only in the incarnations in which both ends are up do their SecYs belong to each other.
void handle_peer_secy(const services::topology_peer_secy_ind& said, oka_mailbox sender) {
    link_record* link = find_link([&said](const link_record& candidate) {
        return candidate.is_in_file && candidate.file.port == said.remote_port &&
               candidate.file.remote_port == said.port;
    });
    secy_look own;
    if (!link || peers_find(link->file.hunt_path) != sender || !is_encrypted(*link) ||
        link->agreed.up_with != said.incarnation || link->agreed.incarnation != said.seen_incarnation ||
        !is_look_of_peer_due(link->watched, now_ms()) || !look_at_secy(link->file.port, own))
        return;
    take_findings(*link, take_look_of_peer(link->watched, own, said, now_ms()));
    pursue_all();
}

void handle_peer_refusal(const services::topology_rej& rej, oka_mailbox sender) {
    services::fault_words why = quote_words(rej.words.printable().octets);
    for (link_record& link : self.links) {
        bool is_meant = rej.reason == services::TOPOLOGY_REJ_UNSUPPORTED_PROTOCOL_VERSION ||
                        link.agreed.reference == rej.header.procedure_reference;
        if (is_meant && link.agreed.peer_is_found && peers_find(link.file.hunt_path) == sender)
            peer_refused(link.agreed, why);
    }
    pursue_all();
}

constexpr peers_callbacks peer_callbacks = {
    .handle_found = handle_peer_found,
    .handle_lost = handle_peer_lost,
    .handle_word = handle_peer_word,
    .handle_secy = handle_peer_secy,
    .handle_refusal = handle_peer_refusal,
};

// Everything but the status and the kind of unit names the link; another link is agreed on from the start.
bool is_same_link(const link_attributes& one, const link_attributes& other) {
    link_attributes compared = one;
    compared.status = other.status;
    compared.du_type = other.du_type;
    return compared == other;
}

void meet_peer(link_record& link) {
    meet(link.agreed, link.file.port, link.file.remote_mpid, self.next_reference++, now_ms());
    link.told = {};
    link.shown = {};
    link.watched = {};
    if (link.file.du_type == OXMSI_DU_TYPE_3)
        peers_look_for(link.file.hunt_path);
    link.agreed.peer_is_found = peers_find(link.file.hunt_path) != OKA_MAILBOX_NONE;
}

// What is wanted has changed: no pause of earlier failures holds it up.
void take_up_anew(link_record& link) {
    want_changed(link.published);
    forget_pauses(link.agreed);
}

// The record of the port as the file has it now; what the daemon holds of it stays.
link_record take_from_file(const link_attributes& attributes) {
    link_record* known = find_link(
        [&attributes](const link_record& candidate) { return candidate.file.port == attributes.port; });
    link_record link = known ? *known : link_record{.file = attributes};
    bool is_changed = known && (!link.is_in_file || !(link.file == attributes));
    if (known && !is_changed)
        return link;
    bool is_same = known && is_same_link(link.file, attributes);
    if (known && !is_same)
        say_farewell(link);
    link.file = attributes;
    link.is_in_file = true;
    link.set_status.reset();
    if (!is_same)
        meet_peer(link);
    else if (link.file.du_type == OXMSI_DU_TYPE_3)
        peers_look_for(link.file.hunt_path);
    take_up_anew(link);
    return link;
}

} // namespace

bool topology_start(oka_mailbox mailbox, const topology_callbacks* callbacks) {
    self.callbacks = *callbacks;
    return peers_start(mailbox, &peer_callbacks) && oxmsi_client_start(mailbox, &client_callbacks);
}

void topology_stop() {
    oxmsi_client_stop();
    peers_stop();
    self.retry.stop();
    self.look.stop();
    self.links.clear();
}

void topology_follow(const std::vector<link_attributes>& links) {
    std::vector<link_record> followed;
    followed.reserve(links.size());
    for (const link_attributes& attributes : links)
        followed.push_back(take_from_file(attributes));
    for (link_record& link : self.links) {
        bool stays = std::any_of(links.begin(), links.end(), [&link](const link_attributes& attributes) {
            return attributes.port == link.file.port;
        });
        if (stays)
            continue;
        if (link.is_in_file)
            take_up_anew(link);
        link.is_in_file = false;
        followed.push_back(link);
    }
    self.links = std::move(followed);
    self.callbacks.handle_changed();
    pursue_all();
}

bool topology_set_status(const port_name& port, std::optional<uint32_t> status) {
    link_record* link = find_link([&port](const link_record& candidate) {
        return candidate.is_in_file && candidate.file.port == port;
    });
    if (!link)
        return false;
    TRACE_INFO("TOPOLOGYD: Port '%s': status set to %s", link->file.port.c_str(),
               status ? link_status_to_word(*status) : "that of the file");
    link->set_status = status;
    take_up_anew(*link);
    self.callbacks.handle_changed();
    pursue_all();
    return true;
}

void topology_refresh() {
    for (link_record& link : self.links) {
        if (link.published.subscription == subscription_state::active)
            renew_subscription(link);
    }
}

bool topology_is_refreshing() {
    return std::any_of(self.links.begin(), self.links.end(), [](const link_record& link) {
        return link.published.subscription == subscription_state::requested;
    });
}

const std::vector<link_record>& topology_links() {
    return self.links;
}

const link_record* topology_find(const port_name& port) {
    return find_link([&port](const link_record& candidate) {
        return candidate.is_in_file && candidate.file.port == port;
    });
}

bool topology_dispatch_message(const oka_message* message) {
    if (peers_dispatch_message(message))
        return true;
    if (message->number == LINK_RETRY_IND) {
        if (self.retry.take(message))
            pursue_all();
        return true;
    }
    if (message->number == SECY_LOOK_IND) {
        if (self.look.take(message))
            look_at_all();
        return true;
    }
    return oxmsi_client_dispatch_message(message);
}

} // namespace topologyd
