// Everything that the service says: answers about the connection, which its own handlers give, and those that
// the port manager gives through the send operations.
#include <iterator>

#include "base/trace.h"
#include "tavu/oxmsi/oxmsi_server_answers.h"

namespace tavu {

namespace oxmsi_server {

namespace {

// What a client learns from OXMSI_CAPABILITIES_GET_CFM.
constexpr uint32_t capabilities[] = {1, 1, 8};

// The senders differ in little but the number; these carry out what they share.

// The client that a send operation is for; null, after an error trace that names the operation, when it has
// to refuse.
const client_record* receiver_of(uint32_t client_id, const char* operation, int line) {
    if (!is_in_state(self.state, OXMSI_SERVER_STATE_READY, state_to_str, "TAVU", operation, __FILE__, line))
        return nullptr;
    const client_record* client = find_client(client_id);
    if (!client)
        TRACE_ERROR("TAVU: Could not find client id=%u", client_id);
    return client;
}

template<class T>
void send_confirm(outgoing<T>& message, oka_mailbox receiver, const client_record& client,
                  uint32_t procedure_reference) {
    TRACE_SEND(message, receiver, "TAVU: %s client connection reference=%u, procedure reference=%u",
               oxmsi_msg_no_to_str(message.number()), client.connection_reference, procedure_reference);
    message.send(receiver, self.server_mailbox);
}

void send_reject(uint32_t number, oka_mailbox receiver, uint32_t connection_reference,
                 uint32_t procedure_reference, uint32_t reason) {
    outgoing<oxmsi_rej> message(number);
    message->header.procedure_reference = procedure_reference;
    message->header.connection_reference = connection_reference;
    message->reason = reason;
    TRACE_SEND(
        message, receiver, "TAVU: %s client connection reference=%u, procedure reference=%u, reason='%s'",
        oxmsi_msg_no_to_str(number), connection_reference, procedure_reference, oxmsi_error_to_str(reason));
    message.send(receiver, self.server_mailbox);
}

bool send_plain_cfm(uint32_t number, uint32_t client_id, uint32_t procedure_reference,
                    const char* operation = __builtin_FUNCTION(), int line = __builtin_LINE()) {
    const client_record* client = receiver_of(client_id, operation, line);
    if (!client)
        return false;
    outgoing<message_header> message(number);
    message->procedure_reference = procedure_reference;
    message->connection_reference = client->connection_reference;
    send_confirm(message, client->mailbox, *client, procedure_reference);
    return true;
}

void fill_port_status(outgoing<oxmsi_port_status>& message, const client_record& client,
                      uint32_t procedure_reference, const char* port, uint32_t oper_state,
                      uint32_t encryption_state) {
    message->header.procedure_reference = procedure_reference;
    message->header.connection_reference = client.connection_reference;
    message->port.assign(port);
    message->oper_state = oper_state;
    message->encryption_state = encryption_state;
}

bool send_link_cfm(uint32_t number, uint32_t client_id, uint32_t procedure_reference, const char* port,
                   uint32_t oper_state, uint32_t encryption_state,
                   const char* operation = __builtin_FUNCTION(), int line = __builtin_LINE()) {
    const client_record* client = receiver_of(client_id, operation, line);
    if (!client)
        return false;
    outgoing<oxmsi_port_status> message(number);
    fill_port_status(message, *client, procedure_reference, port, oper_state, encryption_state);
    send_confirm(message, client->mailbox, *client, procedure_reference);
    return true;
}

bool send_rej(uint32_t number, uint32_t client_id, uint32_t procedure_reference, uint32_t reason,
              const char* operation = __builtin_FUNCTION(), int line = __builtin_LINE()) {
    const client_record* client = receiver_of(client_id, operation, line);
    if (!client)
        return false;
    send_reject(number, client->mailbox, client->connection_reference, procedure_reference, reason);
    return true;
}

} // namespace

void send_oxmsi_connection_establish_cfm(const client_record& client, uint32_t procedure_reference) {
    TAVU_FUNCTION();
    outgoing<oxmsi_connection_establish_cfm> message(OXMSI_CONNECTION_ESTABLISH_CFM);
    message->header.procedure_reference = procedure_reference;
    message->header.connection_reference = client.id;
    message->selected_protocol_version = client.protocol_version;
    send_confirm(message, client.mailbox, client, procedure_reference);
}

void send_oxmsi_connection_establish_rej(oka_mailbox receiver, uint32_t connection_reference,
                                         uint32_t procedure_reference, uint32_t reason) {
    TAVU_FUNCTION();
    send_reject(OXMSI_CONNECTION_ESTABLISH_REJ, receiver, connection_reference, procedure_reference, reason);
}

void send_oxmsi_connection_close_cfm(oka_mailbox receiver, const client_record& client,
                                     uint32_t procedure_reference) {
    TAVU_FUNCTION();
    outgoing<message_header> message(OXMSI_CONNECTION_CLOSE_CFM);
    message->procedure_reference = procedure_reference;
    message->connection_reference = client.connection_reference;
    send_confirm(message, receiver, client, procedure_reference);
}

void send_oxmsi_capabilities_get_ref(oka_mailbox receiver, const client_record& client,
                                     uint32_t procedure_reference) {
    TAVU_FUNCTION();
    outgoing<oxmsi_capabilities_get_cfm> message(OXMSI_CAPABILITIES_GET_CFM);
    message->header.procedure_reference = procedure_reference;
    message->header.connection_reference = client.connection_reference;
    for (size_t at = 0; at < std::size(capabilities); at++)
        message->capabilities[at] = capabilities[at];
    send_confirm(message, receiver, client, procedure_reference);
}

} // namespace oxmsi_server

using namespace oxmsi_server;

bool send_oxmsi_idl_link_added_cfm(uint32_t client_id, uint32_t procedure_reference, const char* port,
                                   uint32_t oper_state, uint32_t encryption_state) {
    TAVU_FUNCTION();
    return send_link_cfm(OXMSI_IDL_TOPOLOGY_PUBLISH_LINK_ADDED_CFM, client_id, procedure_reference, port,
                         oper_state, encryption_state);
}

bool send_oxmsi_idl_link_deleted_cfm(uint32_t client_id, uint32_t procedure_reference, const char* port,
                                     uint32_t oper_state, uint32_t encryption_state) {
    TAVU_FUNCTION();
    return send_link_cfm(OXMSI_IDL_TOPOLOGY_PUBLISH_LINK_DELETED_CFM, client_id, procedure_reference, port,
                         oper_state, encryption_state);
}

bool send_oxmsi_idl_link_updated_cfm(uint32_t client_id, uint32_t procedure_reference, const char* port,
                                     uint32_t oper_state, uint32_t encryption_state) {
    TAVU_FUNCTION();
    return send_link_cfm(OXMSI_IDL_TOPOLOGY_PUBLISH_LINK_UPDATED_CFM, client_id, procedure_reference, port,
                         oper_state, encryption_state);
}

bool send_oxmsi_idl_link_added_rej(uint32_t client_id, uint32_t procedure_reference, uint32_t reason) {
    TAVU_FUNCTION();
    return send_rej(OXMSI_IDL_TOPOLOGY_PUBLISH_LINK_ADDED_REJ, client_id, procedure_reference, reason);
}

bool send_oxmsi_idl_link_deleted_rej(uint32_t client_id, uint32_t procedure_reference, uint32_t reason) {
    TAVU_FUNCTION();
    return send_rej(OXMSI_IDL_TOPOLOGY_PUBLISH_LINK_DELETED_REJ, client_id, procedure_reference, reason);
}

bool send_oxmsi_idl_link_updated_rej(uint32_t client_id, uint32_t procedure_reference, uint32_t reason) {
    TAVU_FUNCTION();
    return send_rej(OXMSI_IDL_TOPOLOGY_PUBLISH_LINK_UPDATED_REJ, client_id, procedure_reference, reason);
}

bool send_oxmsi_subscribe_port_status_cfm(uint32_t client_id, uint32_t procedure_reference) {
    TAVU_FUNCTION();
    return send_plain_cfm(OXMSI_PORT_STATE_CHANGE_SUBSCRIBE_CFM, client_id, procedure_reference);
}

bool send_oxmsi_subscribe_port_status_rej(uint32_t client_id, uint32_t procedure_reference, uint32_t reason) {
    TAVU_FUNCTION();
    return send_rej(OXMSI_PORT_STATE_CHANGE_SUBSCRIBE_REJ, client_id, procedure_reference, reason);
}

bool send_oxmsi_unsubscribe_port_status_cfm(uint32_t client_id, uint32_t procedure_reference) {
    TAVU_FUNCTION();
    return send_plain_cfm(OXMSI_PORT_STATE_CHANGE_UNSUBSCRIBE_CFM, client_id, procedure_reference);
}

bool send_oxmsi_macsec_port_status_ind(uint32_t client_id, uint32_t procedure_reference, const char* port,
                                       uint32_t encryption_state, uint32_t oper_state) {
    TAVU_FUNCTION();
    if (self.state == OXMSI_SERVER_STATE_STARTED) {
        TRACE("TAVU: send_oxmsi_macsec_port_status_ind called in state '%s', ignoring",
              state_to_str(self.state));
        return true;
    }
    const client_record* client = receiver_of(client_id, __func__, __LINE__);
    if (!client)
        return false;
    outgoing<oxmsi_port_status> message(OXMSI_PORT_STATE_CHANGE_IND);
    fill_port_status(message, *client, procedure_reference, port, oper_state, encryption_state);
    TRACE_SEND(message, client->mailbox,
               "TAVU: %s client connection reference=%u, procedure reference=%u, port name='%s', encryption "
               "state='%s', oper state='%s'",
               oxmsi_msg_no_to_str(OXMSI_PORT_STATE_CHANGE_IND), client->connection_reference,
               procedure_reference, port, port_macsec_encryption_state_to_str(encryption_state),
               port_macsec_oper_state_to_str(oper_state));
    message.send(client->mailbox, self.server_mailbox);
    return true;
}

} // namespace tavu
