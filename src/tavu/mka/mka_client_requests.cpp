#include "tavu/mka/mka_client_requests.h"

#include "base/trace.h"
#include "tavu/mka/mka_client_link.h"

namespace tavu {

namespace mka_client_internal {

namespace {

void send_leave_ca_rcfm(const client& from, uint32_t procedure_reference) {
    TAVU_FUNCTION();
    send_header(from, MKA_LEAVE_CA_RCFM, procedure_reference);
}

// A request for another CA says that the two ends of the link do not mean the same connection any more.
bool verify_ca_name(const client& expecting, const ca_name& actual) {
    if (actual == expecting.ca) [[likely]]
        return true;
    TRACE_ERROR("TAVU: Invalid ca_name value: actual '%s', expected '%s'", actual.printable().octets,
                expecting.ca.c_str());
    return false;
}

// The CA was left at the server's word: the connection stays.
void finish_leaving(client& leaving) {
    change_state(leaving, MKA_STATE_CA_LEFT);
    fire_handle_mka_client_ca_left_ind(leaving);
}

// An SA request that may go up; the client is taken out of the CA by one that contradicts itself.
client* accept_create_sa_rreq(const oka_message* message, const char* handler = __builtin_FUNCTION()) {
    constexpr uint32_t with_shortest_sak = sizeof(mka_create_sa_rreq) + 1;
    if (oka_size(message) < with_shortest_sak) {
        TRACE_ERROR("TAVU: msg_len=%u < expected_len=%u", oka_size(message), with_shortest_sak);
        return nullptr;
    }
    client* found = addressee(message);
    if (!found || !is_in_state(found->state, MKA_STATE_JOINED, state_to_str, "TAVU", handler))
        return nullptr;
    const auto& request = as<mka_create_sa_rreq>(message);
    if (request.sak_len == 0) {
        TRACE_ERROR("TAVU: Invalid sak_len value: sak_len = %u", uint32_t{request.sak_len});
        leave_ca(*found);
        return nullptr;
    }
    // A length that wraps comes out below the minimum, so it never matches.
    if (!verify_msg_length_equals(message, uint32_t{sizeof request} + request.sak_len))
        return nullptr;
    if (!verify_ca_name(*found, request.ca)) {
        leave_ca(*found);
        return nullptr;
    }
    return found;
}

// For a sender: null, after an error trace with its name, when the module or the client is not there.
client* sending_client(uint32_t client_id, const char* operation) {
    if (!is_in_state(self.state, MKA_GLOBAL_STATE_READY, global_state_to_str, "TAVU", operation))
        return nullptr;
    client* found = find_mka_data_by_id(client_id);
    if (!found)
        TRACE_ERROR("TAVU: Could not find client with client id = %u", client_id);
    return found;
}

bool send_plain(uint32_t client_id, uint32_t number, uint32_t procedure_reference,
                const char* operation = __builtin_FUNCTION()) {
    const client* from = sending_client(client_id, operation);
    if (!from)
        return false;
    send_header(*from, number, procedure_reference);
    return true;
}

bool send_rrej(uint32_t client_id, uint32_t number, uint32_t procedure_reference, uint32_t reason,
               const char* operation = __builtin_FUNCTION()) {
    const client* from = sending_client(client_id, operation);
    if (!from)
        return false;
    outgoing<mka_rej> message(number);
    message->reason = reason;
    send_to_server(*from, message, procedure_reference);
    return true;
}

} // namespace

// --- From the key server

void handle_create_tx_sc_cfm(const oka_message* message) {
    TAVU_FUNCTION();
    if (const client* member = accept(message, sizeof(message_header), MKA_STATE_JOINED))
        MKA_CLIENT_FIRE(*member, mka_client_create_tx_sc_cfm, message);
}

void handle_create_tx_sc_rej(const oka_message* message) {
    TAVU_FUNCTION();
    if (const client* member = accept(message, sizeof(mka_rej), MKA_STATE_JOINED))
        MKA_CLIENT_FIRE(*member, mka_client_create_tx_sc_rej, message);
}

void handle_create_rx_sc_rreq(const oka_message* message) {
    TAVU_FUNCTION();
    client* member = accept(message, sizeof(mka_create_sc_req), MKA_STATE_JOINED);
    if (!member)
        return;
    if (verify_ca_name(*member, as<mka_create_sc_req>(message).ca))
        MKA_CLIENT_FIRE(*member, mka_client_create_rx_sc_req, message);
    else
        leave_ca(*member);
}

void handle_create_tx_sa_rreq(const oka_message* message) {
    TAVU_FUNCTION();
    if (const client* member = accept_create_sa_rreq(message))
        MKA_CLIENT_FIRE(*member, mka_client_create_tx_sa_req, message);
}

void handle_create_rx_sa_rreq(const oka_message* message) {
    TAVU_FUNCTION();
    if (const client* member = accept_create_sa_rreq(message))
        MKA_CLIENT_FIRE(*member, mka_client_create_rx_sa_req, message);
}

void handle_update_protect_frames_rreq(const oka_message* message) {
    TAVU_FUNCTION();
    client* member = accept(message, sizeof(mka_update_protect_frames_rreq), MKA_STATE_JOINED);
    if (!member)
        return;
    if (verify_ca_name(*member, as<mka_update_protect_frames_rreq>(message).ca))
        MKA_CLIENT_FIRE(*member, mka_client_update_protect_frames_req, message);
    else
        leave_ca(*member);
}

void handle_leave_ca_rreq(const oka_message* message) {
    TAVU_FUNCTION();
    client* leaving = accept(message, sizeof(mka_leave_ca_req), MKA_STATE_JOIN_CA);
    if (!leaving)
        return;
    send_leave_ca_rcfm(*leaving, as<message_header>(message).procedure_reference);
    finish_leaving(*leaving);
}

void handle_leave_ca_cfm(const oka_message* message) {
    TAVU_FUNCTION();
    client* leaving = accept(message, sizeof(message_header), MKA_STATE_JOIN_CA);
    if (!leaving)
        return;
    if (verify_procedure_reference(message, mka_client_proc_ref_leave))
        finish_leaving(*leaving);
    else
        leave_ca(*leaving);
}

} // namespace mka_client_internal

using namespace mka_client_internal;

// --- From the KaY

bool mka_client_send_create_tx_sc_req(uint32_t client_id, uint32_t procedure_reference,
                                      const sci& identifier) {
    TAVU_FUNCTION();
    const client* from = sending_client(client_id, __func__);
    if (!from)
        return false;
    outgoing<mka_create_sc_req> message(MKA_CREATE_TX_SC_REQ);
    message->ca = from->ca;
    message->identifier = identifier;
    send_to_server(*from, message, procedure_reference);
    return true;
}

bool mka_client_send_create_rx_sc_rcfm(uint32_t client_id, uint32_t procedure_reference) {
    TAVU_FUNCTION();
    return send_plain(client_id, MKA_CREATE_RX_SC_RCFM, procedure_reference);
}

bool mka_client_send_create_rx_sc_rrej(uint32_t client_id, uint32_t procedure_reference, uint32_t reason) {
    TAVU_FUNCTION();
    return send_rrej(client_id, MKA_CREATE_RX_SC_RREJ, procedure_reference, reason);
}

bool mka_client_send_create_tx_sa_rcfm(uint32_t client_id, uint32_t procedure_reference) {
    TAVU_FUNCTION();
    return send_plain(client_id, MKA_CREATE_TX_SA_RCFM, procedure_reference);
}

bool mka_client_send_create_tx_sa_rrej(uint32_t client_id, uint32_t procedure_reference, uint32_t reason) {
    TAVU_FUNCTION();
    return send_rrej(client_id, MKA_CREATE_TX_SA_RREJ, procedure_reference, reason);
}

bool mka_client_send_create_rx_sa_rcfm(uint32_t client_id, uint32_t procedure_reference) {
    TAVU_FUNCTION();
    return send_plain(client_id, MKA_CREATE_RX_SA_RCFM, procedure_reference);
}

bool mka_client_send_create_rx_sa_rrej(uint32_t client_id, uint32_t procedure_reference, uint32_t reason) {
    TAVU_FUNCTION();
    return send_rrej(client_id, MKA_CREATE_RX_SA_RREJ, procedure_reference, reason);
}

bool mka_client_send_update_protect_frames_rcfm(uint32_t client_id, uint32_t procedure_reference) {
    TAVU_FUNCTION();
    return send_plain(client_id, MKA_UPDATE_PROTECT_FRAMES_RCFM, procedure_reference);
}

bool mka_client_send_update_protect_frames_rrej(uint32_t client_id, uint32_t procedure_reference) {
    TAVU_FUNCTION();
    return send_rrej(client_id, MKA_UPDATE_PROTECT_FRAMES_RREJ, procedure_reference, MKA_REJ_INTERNAL_ERROR);
}

bool mka_client_send_leave_ca_req(uint32_t client_id, uint32_t procedure_reference) {
    TAVU_FUNCTION();
    const client* from = sending_client(client_id, __func__);
    if (!from)
        return false;
    outgoing<mka_leave_ca_req> message(MKA_LEAVE_CA_REQ);
    message->ca = from->ca;
    send_to_server(*from, message, procedure_reference);
    return true;
}

bool mka_client_send_leave_ca_rcfm(uint32_t client_id, uint32_t procedure_reference) {
    TAVU_FUNCTION();
    const client* from = sending_client(client_id, __func__);
    if (!from)
        return false;
    send_leave_ca_rcfm(*from, procedure_reference);
    return true;
}

bool mka_client_send_connection_close_req(uint32_t client_id, uint32_t procedure_reference) {
    TAVU_FUNCTION();
    return send_plain(client_id, MKA_CONNECTION_CLOSE_REQ, procedure_reference);
}

} // namespace tavu
