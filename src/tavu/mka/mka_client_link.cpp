#include "tavu/mka/mka_client_link.h"

#include "base/ignore_result.h"
#include "base/trace.h"

namespace tavu::mka_client_internal {

namespace {

// Procedure references of the messages that a client prepares for itself.
constexpr uint32_t proc_ref_server_up = 1;
constexpr uint32_t proc_ref_server_down = 6;

constexpr uint32_t capabilities_get_cfm_min_size =
    sizeof(mka_capabilities_get_cfm) + mka_empty_information_elements_size;

// --- Heartbeat

void send_heartbeat_req(const client& from) {
    TAVU_FUNCTION();
    send_header(from, MKA_HEARTBEAT_REQ, mka_client_proc_ref_heartbeat);
}

void send_heartbeat_rcfm(const client& from, uint32_t procedure_reference) {
    TAVU_FUNCTION();
    send_header(from, MKA_HEARTBEAT_RCFM, procedure_reference);
}

mka_heartbeat_owner owner_of_heartbeat(const client& supervised) {
    return {supervised.id, supervised.ca.c_str(), MKA_CLIENT_HEARTBEAT_TIMEOUT_IND};
}

void request_heartbeat(client& supervised) {
    send_heartbeat_req(supervised);
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

// --- Requests of the way in

void send_connection_establish_req(const client& from) {
    TAVU_FUNCTION();
    // The server has no reference of its own yet, so the message carries the client's.
    uint32_t procedure_reference = mka_client_proc_ref_connection_base + from.id;
    outgoing<mka_connection_establish_req> message(MKA_CONNECTION_ESTABLISH_REQ);
    message->header.procedure_reference = procedure_reference;
    message->header.connection_reference = from.id;
    message->num_of_pvs = 1;
    message->first_protocol_version = mka_protocol_version;
    TRACE_SEND(
        message, from.server_mailbox, "TAVU: %s connection reference=%u, procedure reference=%u, pv[0]: %u",
        msg_no_to_str(MKA_CONNECTION_ESTABLISH_REQ), from.id, procedure_reference, mka_protocol_version);
    message.send(from.server_mailbox, from.own_mailbox);
}

void send_get_capabilities_req(const client& from) {
    TAVU_FUNCTION();
    send_header(from, MKA_CAPABILITIES_GET_REQ, mka_client_proc_ref_capabilities);
}

void send_join_ca_req(const client& from) {
    TAVU_FUNCTION();
    outgoing<mka_join_ca_req> message(MKA_JOIN_CA_REQ, from.has_capabilities
                                                           ? sizeof(mka_802_1ae_2006_capabilities)
                                                           : mka_empty_information_elements_size);
    message->ca = from.ca;
    message->port_speed = from.port_speed;
    if (from.has_capabilities) {
        message->num_of_information_elements = 1;
        auto& element = *reinterpret_cast<mka_802_1ae_2006_capabilities*>(message.extra());
        element = from.capabilities;
        element.head = {MKA_STANDARD_IEEE_802_1AE_2006, sizeof element};
        element.additional_ciphers = 0;
        memset(element.reserved, 0, sizeof element.reserved);
    }
    send_to_server(from, message, mka_client_proc_ref_join);
}

void monitor_server(client& watching) {
    TAVU_FUNCTION();
    outgoing<message_header> down(MKA_SERVER_DOWN_IND);
    down->procedure_reference = proc_ref_server_down;
    down->connection_reference = watching.id;
    watching.monitor = oka_monitor(watching.server_mailbox, down.prepared());
    TRACE("TAVU: Monitoring server mailbox: %u, monitor identifier: %u", watching.server_mailbox,
          watching.monitor);
}

// --- Checks

bool verify_get_capabilities_cfm_size(const oka_message* message) {
    TAVU_FUNCTION();
    uint32_t size = oka_size(message);
    if (size < capabilities_get_cfm_min_size) {
        TRACE_ERROR("TAVU: Parse error: msg_len=%u < expected_msg_len=%u", size,
                    capabilities_get_cfm_min_size);
        return false;
    }
    uint32_t count = as<mka_capabilities_get_cfm>(message).num_of_information_elements;
    uint32_t expected =
        count == 0 ? capabilities_get_cfm_min_size
                   : size_with_information_elements(message, sizeof(mka_capabilities_get_cfm), count);
    if (size == expected)
        return true;
    TRACE_ERROR("TAVU: Parse error: msg_len=%u != expected_msg_len=%u", size, expected);
    return false;
}

// Answers to the establish request: only its procedure reference tells whose it was.
client* connecting_client(const oka_message* message, const char* handler = __builtin_FUNCTION()) {
    const message_header& header = as<message_header>(message);
    TRACE_RECEIVE(message, "TAVU: %s connection reference=%u, procedure reference=%u",
                  msg_no_to_str(message->number), uint32_t{header.connection_reference},
                  uint32_t{header.procedure_reference});
    if (header.procedure_reference < mka_client_proc_ref_connection_base) {
        TRACE_ERROR("TAVU: Invalid proc_ref value: %u", uint32_t{header.procedure_reference});
        return nullptr;
    }
    uint32_t id = header.procedure_reference - mka_client_proc_ref_connection_base;
    client* found = find_mka_data_by_id(id);
    if (!found) {
        TRACE_ERROR("TAVU: Could not find client client id = %u", id);
        return nullptr;
    }
    if (!verify_sender(message, found->server_mailbox, msg_no_to_str(message->number)))
        return nullptr;
    return is_in_state(found->state, MKA_STATE_CONNECTION_ESTABLISH, state_to_str, "TAVU", handler) ? found
                                                                                                    : nullptr;
}

} // namespace

void locate_server(const client& locating, const char* key_server_name) {
    TAVU_FUNCTION();
    TRACE("TAVU: Start locating server '%s'", key_server_name);
    outgoing<message_header> up(MKA_SERVER_UP_IND);
    up->procedure_reference = proc_ref_server_up;
    up->connection_reference = locating.id;
    oka_locate_async(key_server_name, up.prepared(), locating.own_mailbox);
}

void disconnect(client& disconnected) {
    TAVU_FUNCTION();
    stop_heartbeat_supervision(disconnected);
    if (disconnected.server_mailbox != OKA_MAILBOX_NONE) {
        oka_unmonitor(disconnected.monitor);
        disconnected.server_mailbox = OKA_MAILBOX_NONE;
    }
    if (disconnected.own_mailbox != OKA_MAILBOX_NONE) {
        oka_delete_mailbox(disconnected.own_mailbox);
        disconnected.own_mailbox = OKA_MAILBOX_NONE;
    }
    disconnected.server_connection_reference = 0;
}

void leave_ca(client& leaving) {
    TAVU_FUNCTION();
    TRACE("TAVU: Leaving CA for client client id = %u, CA name = '%s'", leaving.id, leaving.ca.c_str());
    disconnect(leaving);
    change_state(leaving, MKA_STATE_CA_LEFT);
    fire_handle_mka_client_ca_left_ind(leaving);
}

// --- The way in

void handle_server_up_ind(const oka_message* message) {
    TAVU_FUNCTION();
    client* located = accept(message, sizeof(message_header), MKA_STATE_LOCATING);
    if (!located)
        return;
    located->server_mailbox = oka_sender(message);
    monitor_server(*located);
    send_connection_establish_req(*located);
    change_state(*located, MKA_STATE_CONNECTION_ESTABLISH);
}

void handle_connection_establish_cfm(const oka_message* message) {
    TAVU_FUNCTION();
    const auto* cfm = view<mka_connection_establish_cfm>(message);
    client* connected = cfm ? connecting_client(message) : nullptr;
    if (!connected)
        return;
    if (cfm->selected_protocol_version != mka_protocol_version) {
        TRACE_ERROR("TAVU: Selected protocol version %u is not supported, expected %u",
                    uint32_t{cfm->selected_protocol_version}, mka_protocol_version);
        leave_ca(*connected);
        return;
    }
    connected->server_connection_reference = cfm->header.connection_reference;
    connected->protocol_version = cfm->selected_protocol_version;
    send_get_capabilities_req(*connected);
    change_state(*connected, MKA_STATE_GET_CAPABILITIES);
}

void handle_connection_establish_rej(const oka_message* message) {
    TAVU_FUNCTION();
    client* rejected = view<mka_rej>(message) ? connecting_client(message) : nullptr;
    if (rejected)
        leave_ca(*rejected);
}

void handle_get_capabilities_cfm(const oka_message* message) {
    TAVU_FUNCTION();
    if (!verify_get_capabilities_cfm_size(message))
        return;
    client* joining = addressee(message);
    if (!joining || !is_in_state(joining->state, MKA_STATE_GET_CAPABILITIES, state_to_str))
        return;
    if (!verify_procedure_reference(message, mka_client_proc_ref_capabilities)) {
        leave_ca(*joining);
        return;
    }
    start_heartbeat_supervision(*joining);
    send_join_ca_req(*joining);
    change_state(*joining, MKA_STATE_JOIN_CA);
}

void handle_get_capabilities_rej(const oka_message* message) {
    TAVU_FUNCTION();
    client* rejected = accept(message, sizeof(mka_rej), MKA_STATE_GET_CAPABILITIES);
    if (!rejected)
        return;
    ignore_result(verify_procedure_reference(message, mka_client_proc_ref_capabilities));
    leave_ca(*rejected);
}

void handle_join_ca_cfm(const oka_message* message) {
    TAVU_FUNCTION();
    client* joined = accept(message, sizeof(mka_join_ca_cfm), MKA_STATE_JOIN_CA);
    if (!joined)
        return;
    if (!verify_procedure_reference(message, mka_client_proc_ref_join)) {
        leave_ca(*joined);
        return;
    }
    change_state(*joined, MKA_STATE_JOINED);
    MKA_CLIENT_FIRE(*joined, mka_client_ca_joined_ind, message);
}

void handle_join_ca_rej(const oka_message* message) {
    TAVU_FUNCTION();
    client* rejected = accept(message, sizeof(mka_rej), MKA_STATE_JOIN_CA);
    if (!rejected)
        return;
    ignore_result(verify_procedure_reference(message, mka_client_proc_ref_join));
    leave_ca(*rejected);
}

// --- Supervision

void handle_heartbeat_cfm(const oka_message* message) {
    TAVU_FUNCTION();
    client* supervised = accept(message, sizeof(message_header));
    if (!supervised)
        return;
    mka_heartbeat_confirmed(supervised->heartbeat, owner_of_heartbeat(*supervised));
}

void handle_heartbeat_rreq(const oka_message* message) {
    TAVU_FUNCTION();
    if (const client* supervised = accept(message, sizeof(message_header)))
        send_heartbeat_rcfm(*supervised, as<message_header>(message).procedure_reference);
}

void handle_heartbeat_timeout_ind(const oka_message* message) {
    TAVU_FUNCTION();
    const auto* expiry = view<message_header>(message);
    if (!expiry)
        return;
    uint32_t id = expiry->connection_reference;
    TRACE("TAVU: Heartbeat timeout for client client id = %u", id);
    client* supervised = find_mka_data_by_id(id);
    if (!supervised) {
        TRACE("TAVU: Heartbeat timeout for client client id = %u, but no client found", id);
        return;
    }
    if (supervised->state == MKA_STATE_CREATED || supervised->state == MKA_STATE_CA_LEFT) {
        TRACE("TAVU: Heartbeat timeout for client client id = %u, but client is in state '%s'", id,
              state_to_str(supervised->state));
        return;
    }
    switch (mka_heartbeat_expired(supervised->heartbeat, owner_of_heartbeat(*supervised))) {
    case mka_heartbeat_expiry::stale:
        break;
    case mka_heartbeat_expiry::pause:
        request_heartbeat(*supervised);
        break;
    case mka_heartbeat_expiry::loss:
        leave_ca(*supervised);
        break;
    }
}

void handle_peer_down_ind(const oka_message* message) {
    TAVU_FUNCTION();
    if (client* abandoned = accept(message, sizeof(message_header)))
        leave_ca(*abandoned);
}

void handle_connection_close_cfm(const oka_message* message) {
    TAVU_FUNCTION();
    client* closed = accept(message, sizeof(message_header));
    if (!closed)
        return;
    if (closed->state == MKA_STATE_CREATED) {
        trace_wrong_state("TAVU", __func__, state_to_str(closed->state), "any but MKA_STATE_CREATED",
                          __FILE__, __LINE__);
        return;
    }
    change_state(*closed, MKA_STATE_CA_LEFT);
    MKA_CLIENT_FIRE(*closed, mka_connection_close_cfm, message);
}

} // namespace tavu::mka_client_internal
