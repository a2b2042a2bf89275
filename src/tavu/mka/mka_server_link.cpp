#include "tavu/mka/mka_server_link.h"

#include <algorithm>

#include "base/trace.h"

namespace tavu::mka_server_internal {

namespace {

client* find_mka_data_by_client_ref(oka_mailbox mailbox, uint32_t connection_reference) {
    TAVU_FUNCTION();
    return self.clients.find(mailbox, connection_reference);
}

oka_monitor_ref monitor_client(const client& watched) {
    outgoing<message_header> down(MKA_CLIENT_DOWN_IND);
    down->connection_reference = watched.id;
    return oka_monitor(watched.mailbox, down.prepared());
}

client* add_client(uint32_t id, oka_mailbox mailbox, uint32_t connection_reference,
                   uint32_t protocol_version) {
    TAVU_FUNCTION();
    client* added = self.clients.add(id, mailbox, connection_reference, protocol_version, monitor_client);
    if (added)
        TRACE(
            "TAVU: Client client mailbox id=%u, client connection reference=%u is added with client id = %u",
            mailbox, connection_reference, id);
    return added;
}

void send_connection_establish_cfm(const client& to, uint32_t procedure_reference) {
    TAVU_FUNCTION();
    outgoing<mka_connection_establish_cfm> message(MKA_CONNECTION_ESTABLISH_CFM);
    message->selected_protocol_version = to.protocol_version;
    // The client learns here under which id its messages are taken from now on.
    send(to.mailbox, message, to.id, procedure_reference);
}

// To the sender of a request that made no connection.
void send_connection_establish_rej(const oka_message* request, uint32_t reason) {
    TAVU_FUNCTION();
    const message_header& header = as<message_header>(request);
    send_rej(oka_sender(request), MKA_CONNECTION_ESTABLISH_REJ, header.connection_reference,
             header.procedure_reference, reason);
}

void send_get_capabilities_cfm(const client& to, uint32_t procedure_reference) {
    TAVU_FUNCTION();
    outgoing<mka_capabilities_get_cfm> message(MKA_CAPABILITIES_GET_CFM, mka_empty_information_elements_size);
    send(to, message, procedure_reference);
}

void send_heartbeat_rreq(const client& to) {
    TAVU_FUNCTION();
    send_header(to, MKA_HEARTBEAT_RREQ, mka_server_proc_ref_heartbeat);
}

// --- Heartbeat

mka_heartbeat_owner owner_of_heartbeat(const client& supervised) {
    return {supervised.id, nullptr, MKA_SERVER_HEARTBEAT_TIMEOUT_IND};
}

void request_heartbeat(client& supervised) {
    send_heartbeat_rreq(supervised);
    mka_heartbeat_sent(supervised.heartbeat, owner_of_heartbeat(supervised));
}

void start_heartbeat_supervision(client& supervised) {
    TAVU_FUNCTION();
    if (!mka_heartbeat_is_running(supervised.heartbeat, owner_of_heartbeat(supervised)))
        request_heartbeat(supervised);
}

void stop_heartbeat_supervision(client& supervised) {
    TAVU_FUNCTION();
    mka_heartbeat_stop(supervised.heartbeat, owner_of_heartbeat(supervised));
}

void delete_client(client& deleted) {
    TAVU_FUNCTION();
    stop_heartbeat_supervision(deleted);
    self.clients.remove(deleted, [](oka_mailbox, oka_monitor_ref monitor) { oka_unmonitor(monitor); });
}

// A connection whose heartbeat has timed out stays, until it is in the way of another.
bool make_room() {
    client* oldest =
        self.clients.oldest([](const client& each) { return each.is_silent && !each.is_member; });
    if (!oldest)
        return false;
    TRACE_INFO("TAVU: Client with client id = %u has been silent and makes room for another", oldest->id);
    delete_client(*oldest);
    return true;
}

// 0 when all are taken.
uint32_t allocate_new_client_id() {
    TAVU_FUNCTION();
    uint32_t id = self.clients.free_id();
    if (id == 0 && make_room())
        id = self.clients.free_id();
    for (uint32_t used = 1; used < (id != 0 ? id : mka_server_max_clients + 1); used++)
        TRACE_DETAIL("TAVU: client id = %u is already used", used);
    if (id != 0)
        TRACE("TAVU: Allocated new client id = %u", id);
    else
        TRACE_ERROR("TAVU: Maximum number of clients reached: %u", mka_server_max_clients);
    return id;
}

void fire_handle_mka_server_peer_down_ind(uint32_t client_id) {
    TAVU_FUNCTION();
    TRACE_INFO("TAVU: Firing handle_mka_server_peer_down_ind for client client id = %u", client_id);
    self.callbacks.handle_mka_server_peer_down_ind(client_id);
}

void fire_handle_heartbeat_timeout_ind(uint32_t client_id) {
    TAVU_FUNCTION();
    TRACE_INFO("TAVU: Firing handle_heartbeat_timeout_ind for client client id = %u", client_id);
    self.callbacks.handle_heartbeat_timeout_ind(client_id);
}

// For a message that is a header alone.
client* accept(const oka_message* message) {
    return verify_msg_length_equals(message, sizeof(message_header)) ? sender_of(message) : nullptr;
}

bool verify_connection_establish_req_size(const oka_message* message) {
    TAVU_FUNCTION();
    if (!verify_msg_length_minimum_size(message, sizeof(mka_connection_establish_req)))
        return false;
    const auto& request = as<mka_connection_establish_req>(message);
    // No message holds as many as the bound, so that the product never wraps.
    uint32_t offered = std::min<uint32_t>(request.num_of_pvs, OKA_MESSAGE_SIZE_MAX);
    uint32_t expected = offered == 0
                            ? uint32_t{sizeof request}
                            : uint32_t{offsetof(mka_connection_establish_req, first_protocol_version)} +
                                  uint32_t{sizeof(be32)} * offered;
    return verify_msg_length_equals(message, expected);
}

} // namespace

void clear_data() {
    TAVU_FUNCTION();
    TRACE("TAVU: Removing all clients");
    while (client* newest = self.clients.newest())
        delete_client(*newest);
}

// --- Connections

void connection_establish_req(const oka_message* message) {
    TAVU_FUNCTION();
    if (!verify_connection_establish_req_size(message))
        return;
    const auto& request = as<mka_connection_establish_req>(message);
    oka_mailbox mailbox = oka_sender(message);
    uint32_t connection_reference = request.header.connection_reference;
    TRACE_RECEIVE(message, "TAVU: %s connection reference=%u, procedure reference=%u, num_of_pvs=%u",
                  msg_no_to_str(message->number), connection_reference,
                  uint32_t{request.header.procedure_reference}, uint32_t{request.num_of_pvs});
    if (mailbox == OKA_MAILBOX_NONE) {
        TRACE_ERROR("TAVU: %s is received without a sender; dropped", msg_no_to_str(message->number));
        return;
    }
    if (const client* existing = find_mka_data_by_client_ref(mailbox, connection_reference)) {
        TRACE_ERROR("TAVU: Client client mailbox id=%u, client connection reference=%u already exists with "
                    "client id = %u",
                    mailbox, connection_reference, existing->id);
        send_connection_establish_rej(message, MKA_REJ_CLIENT_ALREADY_EXIST);
        return;
    }
    uint32_t id = allocate_new_client_id();
    if (id == 0) {
        send_connection_establish_rej(message, MKA_REJ_MAX_NUMBER_OF_CLIENTS_REACHED);
        return;
    }
    uint32_t version = select_pv(&request.first_protocol_version, request.num_of_pvs, mka_protocol_version);
    if (version == 0) {
        TRACE_ERROR("TAVU: Protocol version negotiation with client mailbox id=%u, client connection "
                    "reference=%u failed",
                    mailbox, connection_reference);
        send_connection_establish_rej(message, MKA_REJ_UNSUPPORTED_PROTOCOL_VERSION);
        return;
    }
    client* added = add_client(id, mailbox, connection_reference, version);
    if (!added)
        return;
    send_connection_establish_cfm(*added, request.header.procedure_reference);
    start_heartbeat_supervision(*added);
}

void handle_connection_close_req(const oka_message* message) {
    TAVU_FUNCTION();
    client* closing = accept(message);
    if (!closing)
        return;
    send_header(*closing, MKA_CONNECTION_CLOSE_CFM, as<message_header>(message).procedure_reference);
    fire(closing->id, "fire_handle_connection_closed_ind", self.callbacks.handle_connection_closed_ind,
         message);
    delete_client(*closing);
}

void handle_client_down_ind(const oka_message* message) {
    TAVU_FUNCTION();
    if (!verify_msg_length_equals(message, sizeof(message_header)))
        return;
    oka_mailbox mailbox = oka_sender(message);
    TRACE("TAVU: client mailbox id=%u is down, deleting all clients from that mailbox", mailbox);
    while (client* gone = self.clients.newest_of(mailbox)) {
        fire_handle_mka_server_peer_down_ind(gone->id);
        delete_client(*gone);
    }
}

void handle_get_capabilities_req(const oka_message* message) {
    TAVU_FUNCTION();
    if (const client* asking = accept(message))
        send_get_capabilities_cfm(*asking, as<message_header>(message).procedure_reference);
}

// --- Supervision

void handle_heartbeat_req(const oka_message* message) {
    TAVU_FUNCTION();
    if (const client* supervising = accept(message))
        send_header(*supervising, MKA_HEARTBEAT_CFM, as<message_header>(message).procedure_reference);
}

void handle_heartbeat_rcfm(const oka_message* message) {
    TAVU_FUNCTION();
    client* supervised = accept(message);
    if (!supervised || !verify_procedure_reference(message, mka_server_proc_ref_heartbeat))
        return;
    mka_heartbeat_confirmed(supervised->heartbeat, owner_of_heartbeat(*supervised));
}

void handle_heartbeat_timeout_ind(const oka_message* message) {
    TAVU_FUNCTION();
    const auto* expiry = view<message_header>(message);
    if (!expiry)
        return;
    uint32_t id = expiry->connection_reference;
    client* supervised = find_mka_data_by_id(id);
    if (!supervised) {
        TRACE("TAVU: Heartbeat timeout for client client id = %u, but no client found", id);
        return;
    }
    switch (mka_heartbeat_expired(supervised->heartbeat, owner_of_heartbeat(*supervised))) {
    case mka_heartbeat_expiry::stale:
        break;
    case mka_heartbeat_expiry::pause:
        request_heartbeat(*supervised);
        break;
    case mka_heartbeat_expiry::loss:
        supervised->is_silent = true;
        fire_handle_heartbeat_timeout_ind(id);
        break;
    }
}

} // namespace tavu::mka_server_internal
