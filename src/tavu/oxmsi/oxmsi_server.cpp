#include "tavu/oxmsi/oxmsi_server.h"

#include "base/dispatch.h"
#include "base/trace.h"
#include "tavu/oxmsi/oxmsi_server_answers.h"

namespace tavu {

namespace oxmsi_server {

namespace {

bool is_started_or_ready(const char* operation = __builtin_FUNCTION(), int line = __builtin_LINE()) {
    if (self.state == OXMSI_SERVER_STATE_STARTED || self.state == OXMSI_SERVER_STATE_READY) [[likely]]
        return true;
    trace_wrong_state("TAVU", operation, state_to_str(self.state), "STARTED or READY", __FILE__, line);
    return false;
}

// --- What goes up

void fire_handle_oxmsi_idl_link_added_req(uint32_t client_id, uint32_t procedure_reference,
                                          const oxmsi_link& link, const oka_hunt_path& hunt_path) {
    TAVU_FUNCTION();
    TRACE("TAVU: Firing handle_oxmsi_idl_link_added_req for port '%s', link_id = %u, oka hunt path = '%s'",
          link.port.c_str(), uint32_t{link.link_id}, hunt_path.printable().c_str());
    self.callbacks.handle_oxmsi_idl_link_added_req(client_id, procedure_reference, link, hunt_path);
}

void fire_handle_oxmsi_idl_link_deleted_req(uint32_t client_id, uint32_t procedure_reference,
                                            const char* port, uint32_t link_id) {
    TAVU_FUNCTION();
    TRACE("TAVU: Firing handle_oxmsi_idl_link_deleted_req for port '%s'link_id %u", port, link_id);
    self.callbacks.handle_oxmsi_idl_link_deleted_req(client_id, procedure_reference, port, link_id);
}

void fire_handle_oxmsi_idl_link_updated_req(uint32_t client_id, uint32_t procedure_reference,
                                            const oxmsi_link& link) {
    TAVU_FUNCTION();
    TRACE("TAVU: Firing handle_oxmsi_idl_link_updated_req for port '%s', link_id %u", link.port.c_str(),
          uint32_t{link.link_id});
    self.callbacks.handle_oxmsi_idl_link_updated_req(client_id, procedure_reference, link);
}

void fire_handle_oxmsi_subscribe_req(uint32_t client_id, uint32_t procedure_reference, const char* port) {
    TAVU_FUNCTION();
    TRACE("TAVU: Firing handle_oxmsi_subscribe_req for port '%s'", port);
    self.callbacks.handle_oxmsi_subscribe_req(client_id, procedure_reference, port);
}

void fire_handle_oxmsi_unsubscribe_req(uint32_t client_id, uint32_t procedure_reference, const char* port) {
    TAVU_FUNCTION();
    TRACE("TAVU: Firing handle_oxmsi_unsubscribe_req for port '%s'", port);
    self.callbacks.handle_oxmsi_unsubscribe_req(client_id, procedure_reference, port);
}

void fire_handle_oxmsi_client_down_ind(uint32_t client_id) {
    TAVU_FUNCTION();
    TRACE("TAVU: Firing handle_oxmsi_client_down_ind for client %u", client_id);
    self.callbacks.handle_oxmsi_client_down_ind(client_id);
}

void fire_handle_oxmsi_connection_close_ind(uint32_t client_id) {
    TAVU_FUNCTION();
    TRACE("TAVU: Firing handle_oxmsi_connection_close_ind for client id=%u", client_id);
    self.callbacks.handle_oxmsi_connection_close_ind(client_id);
}

// --- Checks

// The client that the request names, or null after an error trace.
client_record* get_client(const oka_message* message) {
    TAVU_FUNCTION();
    uint32_t client_id = as<message_header>(message).connection_reference;
    client_record* client = find_client(client_id);
    if (!client)
        TRACE_ERROR("TAVU: Unknown client id=%u, dropping message '%s'", client_id,
                    oxmsi_msg_no_to_str(message->number));
    return client;
}

// Both are checked, so that the traces of a refused request tell everything that was wrong with it.
bool verify_message_header(const oka_message* message, const client_record& client) {
    TAVU_FUNCTION();
    uint32_t client_id = as<message_header>(message).connection_reference;
    bool accepted = true;
    if (oka_sender(message) != client.mailbox) {
        TRACE_ERROR("TAVU: Client mailbox id mismatch: expected:%u, actual:%u", client.mailbox,
                    oka_sender(message));
        accepted = false;
    }
    if (client_id != client.id) {
        TRACE_ERROR("TAVU: Connection reference mismatch: expected:%u, actual:%u", client.id, client_id);
        accepted = false;
    }
    return accepted;
}

// The client of a request of the right size; null, after an error trace, when the request is to be dropped.
client_record* accept(const oka_message* message, uint32_t size) {
    if (!verify_msg_length_equals(message, size))
        return nullptr;
    const message_header& header = as<message_header>(message);
    TRACE_RECEIVE(message, "TAVU: %s client id=%u, procedure reference=%u",
                  oxmsi_msg_no_to_str(message->number), uint32_t{header.connection_reference},
                  uint32_t{header.procedure_reference});
    return get_client(message);
}

// Hands the request on as a Request when its size, its client and its sender are right; drops it otherwise.
template<class Request>
void take_request(const oka_message* message,
                  void (*take)(uint32_t client_id, uint32_t procedure_reference, const Request& request)) {
    const client_record* client = accept(message, sizeof(Request));
    if (!client || !verify_message_header(message, *client))
        return;
    const Request& request = as<Request>(message);
    take(request.header.connection_reference, request.header.procedure_reference, request);
}

bool verify_port_name_length(const port_name& port) {
    TAVU_FUNCTION();
    if (port.is_terminated())
        return true;
    TRACE_ERROR("TAVU: port_name '%s' is %u bytes long, exceeding maximum length %u",
                port.printable().c_str(), static_cast<unsigned>(port.length()),
                static_cast<unsigned>(sizeof port.octets - 1));
    return false;
}

// Why the link cannot be added, or 0.
uint32_t reason_to_reject(const oxmsi_link& link) {
    uint32_t du_type = link.du_type;
    uint32_t link_status = link.link_status;
    if (!verify_port_name_length(link.port))
        return OXMSI_REJ_PORT_NAME_TOO_LONG;
    if (du_type != OXMSI_DU_TYPE_2 && du_type != OXMSI_DU_TYPE_3) {
        TRACE_ERROR("TAVU: Invalid du_type value: %u", du_type);
        return OXMSI_REJ_INVALID_DU_TYPE;
    }
    if (link_status > OXMSI_LTM_LINK_STATUS_AUTHENTICATION_FAILED) {
        TRACE_ERROR("TAVU: Invalid link_status value: %u", link_status);
        return OXMSI_REJ_INVALID_LINK_STATUS;
    }
    return 0;
}

// --- Connecting

bool verify_number_of_versions(const oka_message* message) {
    const auto& request = as<oxmsi_connection_establish_req>(message);
    constexpr uint64_t offset = offsetof(oxmsi_connection_establish_req, first_protocol_version);
    uint64_t expected = offset + sizeof(be32) * uint64_t{request.num_of_protocol_versions};
    if (expected == oka_size(message))
        return true;
    TRACE_ERROR("TAVU: Invalid message size: actual = %u, expected = %u client mailbox id=%u, client "
                "connection reference=%u",
                oka_size(message), static_cast<unsigned>(expected > UINT32_MAX ? UINT32_MAX : expected),
                oka_sender(message), uint32_t{request.header.connection_reference});
    return false;
}

uint32_t fail_negotiation(oka_mailbox mailbox, uint32_t connection_reference) {
    TRACE_ERROR("TAVU: Protocol version negotiation with client mailbox id=%u, client connection "
                "reference=%u failed",
                mailbox, connection_reference);
    return OXMSI_REJ_UNSUPPORTED_PROTOCOL_VERSION;
}

// Registers the client of a request of the right size, and confirms; gives 0, or why it is rejected.
uint32_t connect_client(const oxmsi_connection_establish_req& request, oka_mailbox mailbox) {
    const uint32_t connection_reference = request.header.connection_reference;
    if (const client_record* known = find_client_by_client_ref(mailbox, connection_reference)) {
        TRACE_ERROR("TAVU: Client client mailbox id=%u, client id=%u, client connection reference=%u already "
                    "exists",
                    mailbox, known->id, connection_reference);
        return OXMSI_REJ_CLIENT_ALREADY_EXIST;
    }
    uint32_t version =
        select_pv(&request.first_protocol_version, request.num_of_protocol_versions, oxmsi_protocol_version);
    if (version == 0)
        return fail_negotiation(mailbox, connection_reference);
    uint32_t id = allocate_client_id();
    if (id == 0)
        return OXMSI_REJ_MAX_NUMBER_OF_CLIENTS_REACHED;
    const client_record* client = add_client(id, mailbox, connection_reference, version);
    if (!client)
        return OXMSI_REJ_INTERNAL_ERROR;
    send_oxmsi_connection_establish_cfm(*client, request.header.procedure_reference);
    return 0;
}

// --- Requests

void handle_connection_establish_req(const oka_message* message) {
    TAVU_FUNCTION();
    if (!verify_msg_length_minimum_size(message, sizeof(oxmsi_connection_establish_req)))
        return;
    const auto& request = as<oxmsi_connection_establish_req>(message);
    const uint32_t connection_reference = request.header.connection_reference;
    const uint32_t procedure_reference = request.header.procedure_reference;
    TRACE_RECEIVE(message, "TAVU: %s client connection reference=%u, procedure reference=%u",
                  oxmsi_msg_no_to_str(message->number), connection_reference, procedure_reference);
    if (oka_sender(message) == OKA_MAILBOX_NONE) {
        TRACE_ERROR("TAVU: %s is received without a sender; dropped", oxmsi_msg_no_to_str(message->number));
        return;
    }
    uint32_t reason = 0;
    // An offer of nothing is refused rather than dropped, though its size cannot be right.
    if (request.num_of_protocol_versions == 0)
        reason = fail_negotiation(oka_sender(message), connection_reference);
    else if (verify_number_of_versions(message))
        reason = connect_client(request, oka_sender(message));
    if (reason != 0)
        send_oxmsi_connection_establish_rej(oka_sender(message), connection_reference, procedure_reference,
                                            reason);
}

void handle_connection_close_req(const oka_message* message) {
    TAVU_FUNCTION();
    client_record* client = accept(message, sizeof(message_header));
    if (!client)
        return;
    send_oxmsi_connection_close_cfm(oka_sender(message), *client,
                                    as<message_header>(message).procedure_reference);
    fire_handle_oxmsi_connection_close_ind(client->id);
    delete_client(*client);
}

void handle_capabilities_get_req(const oka_message* message) {
    TAVU_FUNCTION();
    if (const client_record* client = accept(message, sizeof(message_header)))
        send_oxmsi_capabilities_get_ref(oka_sender(message), *client,
                                        as<message_header>(message).procedure_reference);
}

void handle_idl_link_added_req(const oka_message* message) {
    TAVU_FUNCTION();
    take_request<oxmsi_link_added_req>(
        message, [](uint32_t client_id, uint32_t procedure_reference, const auto& request) {
            uint32_t reason = reason_to_reject(request.link);
            if (reason != 0)
                send_oxmsi_idl_link_added_rej(client_id, procedure_reference, reason);
            else
                fire_handle_oxmsi_idl_link_added_req(client_id, procedure_reference, request.link,
                                                     request.hunt_path);
        });
}

void handle_idl_link_deleted_req(const oka_message* message) {
    TAVU_FUNCTION();
    take_request<oxmsi_link_deleted_req>(
        message, [](uint32_t client_id, uint32_t procedure_reference, const auto& request) {
            if (!verify_port_name_length(request.port))
                send_oxmsi_idl_link_deleted_rej(client_id, procedure_reference, OXMSI_REJ_PORT_NAME_TOO_LONG);
            else
                fire_handle_oxmsi_idl_link_deleted_req(client_id, procedure_reference, request.port.c_str(),
                                                       request.link_id);
        });
}

void handle_idl_link_updated_req(const oka_message* message) {
    TAVU_FUNCTION();
    take_request<oxmsi_link_updated_req>(
        message, [](uint32_t client_id, uint32_t procedure_reference, const auto& request) {
            if (!verify_port_name_length(request.link.port))
                send_oxmsi_idl_link_updated_rej(client_id, procedure_reference, OXMSI_REJ_PORT_NAME_TOO_LONG);
            else
                fire_handle_oxmsi_idl_link_updated_req(client_id, procedure_reference, request.link);
        });
}

void handle_port_status_subscribe_req(const oka_message* message) {
    TAVU_FUNCTION();
    take_request<oxmsi_subscription_req>(
        message, [](uint32_t client_id, uint32_t procedure_reference, const auto& request) {
            if (!verify_port_name_length(request.port))
                send_oxmsi_subscribe_port_status_rej(client_id, procedure_reference,
                                                     OXMSI_REJ_PORT_NAME_TOO_LONG);
            else
                fire_handle_oxmsi_subscribe_req(client_id, procedure_reference, request.port.c_str());
        });
}

void handle_port_status_unsubscribe_req(const oka_message* message) {
    TAVU_FUNCTION();
    take_request<oxmsi_subscription_req>(
        message, [](uint32_t client_id, uint32_t procedure_reference, const auto& request) {
            // Nobody can be subscribed to such a port, so what was asked for holds already.
            if (!verify_port_name_length(request.port))
                send_oxmsi_unsubscribe_port_status_cfm(client_id, procedure_reference);
            else
                fire_handle_oxmsi_unsubscribe_req(client_id, procedure_reference, request.port.c_str());
        });
}

// Our own message, sent on behalf of the mailbox that is gone.
void handle_client_down_ind(const oka_message* message) {
    TAVU_FUNCTION();
    oka_mailbox vanished = oka_sender(message);
    TRACE_RECEIVE(message, "TAVU: %s client mailbox id=%u", "OXMSI_CLIENT_DOWN_IND", vanished);
    while (client_record* client = get_first_client_with_mailbox(vanished)) {
        fire_handle_oxmsi_client_down_ind(client->id);
        delete_client(*client);
    }
}

constexpr dispatch_row dispatch_table[] = {
    {OXMSI_CONNECTION_ESTABLISH_REQ, handle_connection_establish_req},
    {OXMSI_CONNECTION_CLOSE_REQ, handle_connection_close_req},
    {OXMSI_CAPABILITIES_GET_REQ, handle_capabilities_get_req},
    {OXMSI_IDL_TOPOLOGY_PUBLISH_LINK_ADDED_REQ, handle_idl_link_added_req},
    {OXMSI_IDL_TOPOLOGY_PUBLISH_LINK_DELETED_REQ, handle_idl_link_deleted_req},
    {OXMSI_IDL_TOPOLOGY_PUBLISH_LINK_UPDATED_REQ, handle_idl_link_updated_req},
    {OXMSI_PORT_STATE_CHANGE_SUBSCRIBE_REQ, handle_port_status_subscribe_req},
    {OXMSI_PORT_STATE_CHANGE_UNSUBSCRIBE_REQ, handle_port_status_unsubscribe_req},
    {OXMSI_CLIENT_DOWN_IND, handle_client_down_ind, origin::prepared},
};

void oxmsi_server_unpublish_internal() {
    TAVU_FUNCTION();
    if (self.server_mailbox != OKA_MAILBOX_NONE) {
        oka_delete_mailbox(self.server_mailbox);
        self.server_mailbox = OKA_MAILBOX_NONE;
    }
    change_state(OXMSI_SERVER_STATE_STARTED);
}

bool is_complete(const oxmsi_callbacks* callbacks) {
    return callbacks && callbacks->handle_oxmsi_idl_link_added_req &&
           callbacks->handle_oxmsi_idl_link_deleted_req && callbacks->handle_oxmsi_idl_link_updated_req &&
           callbacks->handle_oxmsi_subscribe_req && callbacks->handle_oxmsi_unsubscribe_req &&
           callbacks->handle_oxmsi_client_down_ind && callbacks->handle_oxmsi_connection_close_ind;
}

} // namespace

} // namespace oxmsi_server

using namespace oxmsi_server;

bool oxmsi_server_init(oka_mailbox own, const oxmsi_callbacks* callbacks) {
    TAVU_FUNCTION();
    if (!is_in_state(self.state, OXMSI_SERVER_STATE_UNINITIALIZED, state_to_str))
        return false;
    if (!is_complete(callbacks)) {
        TRACE_ERROR("TAVU: Callbacks parameter or a callback function is NULL");
        return false;
    }
    self.clients.clear();
    self.callbacks = *callbacks;
    self.own_mailbox = own;
    change_state(OXMSI_SERVER_STATE_INITIAL);
    return true;
}

bool oxmsi_server_start() {
    TAVU_FUNCTION();
    if (!is_in_state(self.state, OXMSI_SERVER_STATE_INITIAL, state_to_str))
        return false;
    change_state(OXMSI_SERVER_STATE_STARTED);
    return true;
}

bool oxmsi_server_publish(const char* name) {
    TAVU_FUNCTION();
    if (!is_in_state(self.state, OXMSI_SERVER_STATE_STARTED, state_to_str))
        return false;
    if (self.server_mailbox != OKA_MAILBOX_NONE) {
        TRACE_ERROR("TAVU: Server mailbox is not uninitialized");
        return false;
    }
    self.server_mailbox = oka_clone_mailbox(self.own_mailbox, name);
    if (self.server_mailbox == OKA_MAILBOX_NONE) // the messaging service has said why
        return false;
    change_state(OXMSI_SERVER_STATE_READY);
    return true;
}

bool oxmsi_server_unpublish() {
    TAVU_FUNCTION();
    if (!is_in_state(self.state, OXMSI_SERVER_STATE_READY, state_to_str))
        return false;
    oxmsi_server_unpublish_internal();
    return true;
}

bool oxmsi_server_stop() {
    TAVU_FUNCTION();
    if (!is_started_or_ready())
        return false;
    if (self.state == OXMSI_SERVER_STATE_READY)
        oxmsi_server_unpublish_internal();
    clear_data();
    change_state(OXMSI_SERVER_STATE_INITIAL);
    return true;
}

bool oxmsi_dispatch_message(const oka_message* message) {
    TAVU_FUNCTION();
    if (!is_started_or_ready())
        return false;
    return dispatch_by(dispatch_table, message);
}

} // namespace tavu
