#include "services/idl-topologyd/topology.h"

#include <algorithm>

#include "services/common/one_shot.h"
#include "services/common/topology_messages.h"
#include "services/idl-topologyd/clock.h"
#include "services/idl-topologyd/internal_numbers.h"
#include "services/idl-topologyd/oxmsi_client.h"
#include "tavu/trace.h"

namespace topologyd {

namespace {

using namespace tavu;
using services::link_status_to_word;

struct {
    topology_callbacks callbacks = {};
    std::vector<link_record> links;
    services::one_shot retry{LINK_RETRY_IND};
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
    link.subscription_reference = oxmsi_client_subscribe(link.file.port);
    link.subscription = subscription_state::REQUESTED;
}

void trace_request(const due_request& due) {
    const link_attributes& link = due.attributes;
    if (due.request == link_request::DELETE)
        TRACE_INFO("TOPOLOGYD: Port '%s': link %u withdrawn", link.port.c_str(), link.id);
    else
        TRACE_INFO("TOPOLOGYD: Port '%s': link %u to port '%s' of MP %u %s, %s, status %s", link.port.c_str(),
                   link.id, link.remote_port.c_str(), link.remote_mpid,
                   due.request == link_request::ADD ? "published" : "updated",
                   services::du_type_to_word(link.du_type), link_status_to_word(link.status));
}

// Sends what is due for one link.
void pursue(link_record& link) {
    if (subscription_is_due(link, now_ms()))
        subscribe(link);
    due_request due = next_request(link, now_ms());
    if (due.request == link_request::NONE)
        return;
    trace_request(due);
    uint32_t reference = oxmsi_client_send_link(due);
    request_sent(link, due, oxmsi_request_number(due.request), reference, now_ms());
    self.callbacks.handle_changed();
}

void arm_retry() {
    uint64_t now = now_ms();
    uint64_t next = UINT64_MAX;
    for (const link_record& link : self.links) {
        for (uint64_t at : {link.requests.retry_at_ms, link.subscribing.retry_at_ms}) {
            if (at > now)
                next = std::min(next, at);
        }
    }
    self.retry.stop();
    if (next != UINT64_MAX)
        self.retry.arm(static_cast<uint32_t>(next - now));
}

void pursue_all() {
    if (oxmsi_client_get_state() == OXMSI_CLIENT_STATE_CONNECTED) {
        for (link_record& link : self.links)
            pursue(link);
    }
    for (const link_record& link : self.links) {
        if (is_over(link) && link.subscription != subscription_state::NONE)
            (void)oxmsi_client_unsubscribe(link.file.port);
    }
    if (std::erase_if(self.links, is_over) > 0)
        self.callbacks.handle_changed();
    arm_retry();
}

void handle_connected() {
    pursue_all();
}

void handle_disconnected() {
    for (link_record& link : self.links)
        daemon_lost(link);
    pursue_all();
}

void handle_progress() {
    self.callbacks.handle_changed();
}

void take_subscription_reject(link_record& link, const daemon_answer& answer) {
    TRACE_ERROR("TOPOLOGYD: Port '%s': the subscription was refused: %s", link.file.port.c_str(),
                services::reject_reason_in_words(answer.reason));
    // One that is left from before is ended, so that the next attempt is told the status at once.
    if (answer.reason == OXMSI_REJ_SUBSCRIPTION_ALREADY_EXIST)
        (void)oxmsi_client_unsubscribe(link.file.port);
    link.subscription = subscription_state::NONE;
    link.subscription_reference = 0;
    link.subscribing.fail(now_ms());
}

void trace_answer(const link_record& link, const daemon_answer& answer) {
    const char* port = link.file.port.c_str();
    const char* request = services::request_in_words(link.last_request);
    if (answer.reason == 0)
        TRACE_INFO("TOPOLOGYD: Port '%s': %s, confirmed after %llu ms: controlled port %s, encryption %s",
                   port, request, static_cast<unsigned long long>(now_ms() - link.requested_ms),
                   enabled_to_word(answer.oper_state), enabled_to_word(answer.encryption_state));
    else
        TRACE_ERROR("TOPOLOGYD: Port '%s': %s, refused: %s", port, request,
                    services::reject_reason_in_words(answer.reason));
}

void handle_answer(uint32_t reference, const daemon_answer& answer) {
    if (link_record* link = find_link([reference](const link_record& candidate) {
            return candidate.pending != link_request::NONE && candidate.pending_reference == reference;
        })) {
        trace_answer(*link, answer);
        request_answered(*link, answer, now_ms());
        if (answer.reason == 0)
            (void)status_told(*link, answer.oper_state, answer.encryption_state, now_ms());
    } else if (link_record* subscriber = find_link([reference](const link_record& candidate) {
                   return candidate.subscription == subscription_state::REQUESTED &&
                          candidate.subscription_reference == reference;
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
        return candidate.subscription != subscription_state::NONE &&
               candidate.subscription_reference == reference && candidate.file.port == port;
    });
    if (!link) {
        TRACE("TOPOLOGYD: An indication for port '%s' belongs to no subscription, procedure reference=%u",
              port.printable().c_str(), reference);
        return;
    }
    link->subscription = subscription_state::ACTIVE;
    link->subscribing.succeed();
    if (!status_indicated(*link, status.oper_state, status.encryption_state, now_ms()))
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
    .handle_answer = handle_answer,
    .handle_indication = handle_indication,
};

// The record of the port as the file has it now; its life with the daemon goes on.
link_record take_from_file(const link_attributes& attributes) {
    link_record* known = find_link(
        [&attributes](const link_record& candidate) { return candidate.file.port == attributes.port; });
    if (!known)
        return {.file = attributes};
    link_record link = *known;
    if (!link.is_in_file || !(link.file == attributes)) {
        link.file = attributes;
        link.is_in_file = true;
        link.set_status.reset();
        want_changed(link);
    }
    return link;
}

} // namespace

bool topology_start(oka_mailbox mailbox, const topology_callbacks* callbacks) {
    self.callbacks = *callbacks;
    return oxmsi_client_start(mailbox, &client_callbacks);
}

void topology_stop() {
    oxmsi_client_stop();
    self.retry.stop();
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
            want_changed(link);
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
    want_changed(*link);
    self.callbacks.handle_changed();
    pursue_all();
    return true;
}

void topology_refresh() {
    for (link_record& link : self.links) {
        if (link.subscription != subscription_state::ACTIVE)
            continue;
        (void)oxmsi_client_unsubscribe(link.file.port);
        subscribe(link);
    }
}

bool topology_is_refreshing() {
    return std::any_of(self.links.begin(), self.links.end(), [](const link_record& link) {
        return link.subscription == subscription_state::REQUESTED;
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
    if (message->number == LINK_RETRY_IND) {
        if (self.retry.take(message))
            pursue_all();
        return true;
    }
    return oxmsi_client_dispatch_message(message);
}

} // namespace topologyd
