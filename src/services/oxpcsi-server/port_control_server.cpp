#include "services/oxpcsi-server/port_control_server.h"

#include <algorithm>
#include <cstring>

#include "base/dispatch.h"
#include "base/record_list.h"
#include "base/trace.h"
#include "services/oxpcsi-server/port_identity.h"

namespace oxpcsi {

using namespace tavu;

namespace {

struct port {
    port_name name;
    port_name interface;
    uint32_t role;
    port_facts facts;
    port_identity identity; // no_identity until there is one, then for good
};

struct client {
    oka_mailbox mailbox;
    uint32_t own_reference; // chosen by the client; in every message to it
    uint32_t reference;     // chosen by this server; in every request
    oka_monitor_ref monitor;
};

struct subscription {
    const client* subscriber;
    uint32_t reference;
    uint32_t procedure_reference;
    uint32_t role;
    port_name name; // empty: all ports of the role
};

struct header_alone {
    message_header header;
};

struct {
    oka_mailbox mailbox = OKA_MAILBOX_NONE;
    port ports[ports_max];
    size_t port_count;
    namespace_name name_space;
    record_list<client> clients{"OXPCSI"};
    record_list<subscription> subscriptions{"OXPCSI"};
    uint32_t last_subscription_reference;
} self;

// --- Sending.

// The receiver of an answer or an indication, and the references in it.
struct address {
    oka_mailbox mailbox;
    uint32_t procedure_reference;
    uint32_t connection_reference;
};

address answer_to(const oka_message* request, const client& from) {
    return {from.mailbox, as<message_header>(request).procedure_reference, from.own_reference};
}

template<class T>
void send(const address& to, outgoing<T>& message) {
    message->header.procedure_reference = to.procedure_reference;
    message->header.connection_reference = to.connection_reference;
    TRACE_SEND(message, to.mailbox, "OXPCSI: %s connection reference=%u, procedure reference=%u",
               oxpcsi_msg_no_to_str(message.number()), to.connection_reference, to.procedure_reference);
    message.send(to.mailbox, self.mailbox);
}

void send_reject(const address& to, uint32_t number, oxpcsi_reject_reason reason) {
    TRACE_INFO("OXPCSI: Mailbox %u is answered %s, reason: '%s'", to.mailbox, oxpcsi_msg_no_to_str(number),
               oxpcsi_reject_reason_to_str(reason));
    outgoing<oxpcsi_rej> message(number);
    message->reason = reason;
    send(to, message);
}

void send_header_alone(const address& to, uint32_t number) {
    outgoing<header_alone> message(number);
    send(to, message);
}

bool is_taken(const port_identity& identity) {
    return std::any_of(self.ports, self.ports + self.port_count,
                       [&](const port& other) { return other.identity == identity; });
}

// The address of the interface, unless there is none yet, or two interfaces share it.
void identify(port& one) {
    if (one.identity != no_identity)
        return;
    port_identity address = std::to_array(one.facts.mac_address);
    if (address != no_identity && !is_taken(address))
        one.identity = address;
}

void fill_entry(oxpcsi_port_entry& entry, port& described) {
    if (described.identity == no_identity)
        described.identity = derive_identity(described.name.c_str());
    entry.port_role = described.role;
    entry.votk_id = described.facts.index;
    memcpy(entry.mac_address, described.identity.data(), sizeof entry.mac_address);
    entry.port = described.name;
    entry.if_name = described.interface;
}

void send_ports(const address& to) {
    // The first entry is part of the message, the others follow it.
    outgoing<oxpcsi_get_eth_port_support_cfm> message(OXPCSI_GET_ETH_PORT_SUPPORT_CFM,
                                                      (self.port_count - 1) * sizeof(oxpcsi_port_entry));
    message->no_ports = static_cast<uint32_t>(self.port_count);
    fill_entry(message->first_entry, self.ports[0]);
    auto* others = reinterpret_cast<oxpcsi_port_entry*>(message.extra());
    for (size_t i = 1; i < self.port_count; i++)
        fill_entry(others[i - 1], self.ports[i]);
    send(to, message);
}

void send_status(const subscription& to, const port& of) {
    outgoing<oxpcsi_eth_port_status2_ind> message(OXPCSI_ETH_PORT_STATUS2_IND);
    message->port_adm_state =
        of.facts.unlocked ? OXPCSI_PORT_ADM_STATE_UNLOCKED : OXPCSI_PORT_ADM_STATE_LOCKED;
    message->port_oper_state =
        of.facts.enabled ? OXPCSI_PORT_OPER_STATE_ENABLED : OXPCSI_PORT_OPER_STATE_DISABLED;
    message->port_mod_present = of.facts.present ? OXPCSI_MODULE_PRESENT : OXPCSI_MODULE_NOT_PRESENT;
    message->line_rate = of.facts.line_rate;
    message->port = of.name;
    message->name_space = self.name_space;
    send({to.subscriber->mailbox, to.procedure_reference, to.subscriber->own_reference}, message);
}

bool covers(const subscription& of, const port& what) {
    return (of.role & what.role) != 0 && (of.name == "" || of.name == what.name);
}

// --- Clients.

void unsubscribe(const client& subscriber) {
    for (subscription& ended : self.subscriptions) {
        if (ended.subscriber == &subscriber)
            self.subscriptions.remove(ended);
    }
}

void forget(client& forgotten, const char* why) {
    TRACE_INFO("OXPCSI: Client %u at mailbox %u %s", forgotten.reference, forgotten.mailbox, why);
    oka_unmonitor(forgotten.monitor);
    unsubscribe(forgotten);
    self.clients.remove(forgotten);
}

uint32_t lowest_free_reference() {
    uint32_t reference = 1;
    while (self.clients.find([reference](client& taken) { return taken.reference == reference; }))
        reference++;
    return reference;
}

// Null, after a trace, when there is no room for another client.
client* admit(oka_mailbox mailbox, uint32_t own_reference) {
    if (self.clients.size() >= clients_max) {
        TRACE_ERROR("OXPCSI: Mailbox %u is not served: there are %u clients already", mailbox, clients_max);
        return nullptr;
    }
    uint32_t reference = lowest_free_reference();
    client* admitted = self.clients.add();
    if (!admitted)
        return nullptr;
    admitted->mailbox = mailbox;
    admitted->own_reference = own_reference;
    admitted->reference = reference;
    outgoing<header_alone> down(CLIENT_DOWN_IND);
    down->header.connection_reference = reference;
    admitted->monitor = oka_monitor(mailbox, down.prepared());
    TRACE_INFO("OXPCSI: Mailbox %u is served as client %u", mailbox, reference);
    return admitted;
}

// --- Receiving. Before the size of a request is known, only its first words are read.

bool has_size(const oka_message* message, uint32_t size, bool exactly = true) {
    uint32_t actual = oka_size(message);
    if (actual == size || (!exactly && actual > size))
        return true;
    TRACE_ERROR("OXPCSI: Message 0x%x from mailbox %u has wrong size: actual: %u bytes, expected%s: %u bytes",
                message->number, oka_sender(message), actual, exactly ? "" : " at least", size);
    return false;
}

void trace_receive(const oka_message* message) {
    TRACE_RECEIVE(message, "OXPCSI: %s connection reference=%u, procedure reference=%u",
                  oxpcsi_msg_no_to_str(message->number),
                  static_cast<uint32_t>(as<message_header>(message).connection_reference),
                  static_cast<uint32_t>(as<message_header>(message).procedure_reference));
}

client* find_client(oka_mailbox mailbox, uint32_t reference) {
    return self.clients.find([mailbox, reference](client& candidate) {
        return candidate.mailbox == mailbox && candidate.reference == reference;
    });
}

// The client that sent the request; null, after an error trace, if it is not known.
client* accept_request(const oka_message* request, uint32_t size, bool exactly) {
    if (!has_size(request, size, exactly))
        return nullptr;
    trace_receive(request);
    uint32_t reference = as<message_header>(request).connection_reference;
    client* from = find_client(oka_sender(request), reference);
    if (!from) {
        TRACE_ERROR("OXPCSI: %s from mailbox %u carries the connection reference %u, which it was not given",
                    oxpcsi_msg_no_to_str(request->number), oka_sender(request), reference);
    }
    return from;
}

void handle_init_service_req(const oka_message* message) {
    if (!has_size(message, sizeof(oxpcsi_init_service_req)))
        return;
    trace_receive(message);
    const auto& request = as<oxpcsi_init_service_req>(message);
    uint32_t own_reference = request.header.connection_reference;
    address sender = {oka_sender(message), request.header.procedure_reference, own_reference};

    bool version_offered = false;
    for (uint32_t version : request.protocol_versions)
        version_offered |= version == oxpcsi_protocol_version;
    if (!version_offered)
        return send_reject(sender, OXPCSI_INIT_SERVICE_REJ, OXPCSI_REJ_SERVICE_INVALID_PV);
    if (self.clients.find([&sender](client& known) {
            return known.mailbox == sender.mailbox && known.own_reference == sender.connection_reference;
        }))
        return send_reject(sender, OXPCSI_INIT_SERVICE_REJ, OXPCSI_REJ_SERVICE_ALREADY_INITIATED);
    const client* admitted = admit(sender.mailbox, own_reference);
    if (!admitted)
        return send_reject(sender, OXPCSI_INIT_SERVICE_REJ, OXPCSI_REJ_INTERNAL_REASON);

    outgoing<oxpcsi_init_service_cfm> confirmation(OXPCSI_INIT_SERVICE_CFM);
    confirmation->pv_selected = oxpcsi_protocol_version;
    // This is the only message with a connection reference that the server chose.
    send({sender.mailbox, sender.procedure_reference, admitted->reference}, confirmation);
}

void handle_term_service_req(const oka_message* message) {
    client* from = accept_request(message, sizeof(message_header), false);
    if (!from)
        return;
    address sender = answer_to(message, *from);
    forget(*from, "has terminated the service");
    send_header_alone(sender, OXPCSI_TERM_SERVICE_CFM);
}

void handle_get_eth_port_support_req(const oka_message* message) {
    client* from = accept_request(message, sizeof(message_header), true);
    if (!from)
        return;
    send_ports(answer_to(message, *from));
}

// Null, with the reason, when the request cannot be granted. A role that no port has can be subscribed to;
// then there is nothing to indicate.
bool is_subscribable(const oxpcsi_subscribe_eth_port_status_req& request, const client& from,
                     oxpcsi_reject_reason& reason) {
    constexpr uint32_t known_roles = OXPCSI_PORT_ROLE_IDL | OXPCSI_PORT_ROLE_E5 | OXPCSI_PORT_ROLE_C2;
    reason = OXPCSI_REJ_INVALID_PORTROLE;
    if (request.port_role == 0 || (request.port_role & ~known_roles) != 0)
        return false;
    if (!(request.port == "")) {
        const port* named = nullptr;
        for (size_t i = 0; i < self.port_count; i++) {
            if (self.ports[i].name == request.port)
                named = &self.ports[i];
        }
        if (named && (named->role & request.port_role) == 0)
            return false;
        reason = OXPCSI_REJ_INVALID_PORTNAME;
        if (!named)
            return false;
    }
    unsigned held = 0;
    for (subscription& other : self.subscriptions)
        held += other.subscriber == &from;
    reason = OXPCSI_REJ_INTERNAL_REASON;
    return held < subscriptions_per_client_max;
}

void handle_subscribe_eth_port_status_req(const oka_message* message) {
    const client* from = accept_request(message, sizeof(oxpcsi_subscribe_eth_port_status_req), true);
    if (!from)
        return;
    const auto& request = as<oxpcsi_subscribe_eth_port_status_req>(message);
    address sender = answer_to(message, *from);
    oxpcsi_reject_reason reason;
    if (!is_subscribable(request, *from, reason))
        return send_reject(sender, OXPCSI_SUBSCRIBE_ETH_PORT_STATUS_REJ, reason);
    subscription* added = self.subscriptions.add();
    if (!added)
        return send_reject(sender, OXPCSI_SUBSCRIBE_ETH_PORT_STATUS_REJ, OXPCSI_REJ_INTERNAL_REASON);
    *added = {from, ++self.last_subscription_reference, sender.procedure_reference, request.port_role,
              request.port};

    outgoing<oxpcsi_subscribe_eth_port_status_cfm> confirmation(OXPCSI_SUBSCRIBE_ETH_PORT_STATUS_CFM);
    confirmation->sub_ref = added->reference;
    send(sender, confirmation);
    for (size_t i = 0; i < self.port_count; i++) {
        if (covers(*added, self.ports[i]))
            send_status(*added, self.ports[i]);
    }
}

// No field of the header says which subscription is meant, so all of the client end.
void handle_unsubscribe_eth_port_status_req(const oka_message* message) {
    const client* from = accept_request(message, sizeof(message_header), false);
    if (!from)
        return;
    unsubscribe(*from);
    send_header_alone(answer_to(message, *from), OXPCSI_UNSUBSCRIBE_ETH_PORT_STATUS_CFM);
}

void handle_client_down_ind(const oka_message* message) {
    if (!has_size(message, sizeof(header_alone)))
        return;
    client* gone = find_client(oka_sender(message), as<message_header>(message).connection_reference);
    if (gone)
        forget(*gone, "is gone");
}

constexpr dispatch_row handlers[] = {
    {OXPCSI_INIT_SERVICE_REQ, handle_init_service_req},
    {OXPCSI_TERM_SERVICE_REQ, handle_term_service_req},
    {OXPCSI_GET_ETH_PORT_SUPPORT_REQ, handle_get_eth_port_support_req},
    {OXPCSI_SUBSCRIBE_ETH_PORT_STATUS_REQ, handle_subscribe_eth_port_status_req},
    {OXPCSI_UNSUBSCRIBE_ETH_PORT_STATUS_REQ, handle_unsubscribe_eth_port_status_req},
    {CLIENT_DOWN_IND, handle_client_down_ind, origin::prepared},
};

} // namespace

void port_control_server_init(const port_setting* ports, size_t count, const char* name_space) {
    self.port_count = count;
    for (size_t i = 0; i < count; i++) {
        self.ports[i].name.assign(ports[i].name);
        self.ports[i].interface.assign(ports[i].interface);
        self.ports[i].role = OXPCSI_PORT_ROLE_IDL;
        self.ports[i].facts = {};
        self.ports[i].identity = no_identity;
    }
    self.name_space.assign(name_space);
}

bool port_control_server_start(oka_mailbox root) {
    self.mailbox = oka_clone_mailbox(root, server_mailbox_name);
    if (self.mailbox == OKA_MAILBOX_NONE) {
        TRACE_ERROR("OXPCSI: The mailbox '%s' cannot be had; does another one run in this unit?",
                    server_mailbox_name);
        return false;
    }
    return true;
}

void port_control_server_stop() {
    for (client& served : self.clients)
        forget(served, "is served no longer");
    if (self.mailbox != OKA_MAILBOX_NONE)
        oka_delete_mailbox(self.mailbox);
    self.mailbox = OKA_MAILBOX_NONE;
}

void port_control_server_update(size_t index, const port_facts& facts) {
    port& updated = self.ports[index];
    TRACE_INFO("OXPCSI: Port '%s' (%s): %s, %s, %s, %u Mbit/s", updated.name.c_str(),
               updated.interface.c_str(), facts.present ? "present" : "not present",
               facts.unlocked ? "unlocked" : "locked", facts.enabled ? "enabled" : "disabled",
               facts.line_rate);
    const port_facts known = updated.facts;
    updated.facts = facts;
    identify(updated);
    if (known.present == facts.present && known.unlocked == facts.unlocked &&
        known.enabled == facts.enabled && known.line_rate == facts.line_rate)
        return;
    for (subscription& of : self.subscriptions) {
        if (covers(of, updated))
            send_status(of, updated);
    }
}

bool port_control_server_dispatch_message(const oka_message* message) {
    if (self.mailbox == OKA_MAILBOX_NONE || oka_receiver(message) != self.mailbox)
        return false;
    if (dispatch_by(handlers, message))
        return true;
    TRACE_ERROR("OXPCSI: Message 0x%x from mailbox %u is none that this server answers; dropped",
                message->number, oka_sender(message));
    return true;
}

} // namespace oxpcsi
