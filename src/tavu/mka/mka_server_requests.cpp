// What the key server sends to its clients.
#include <algorithm>

#include "base/trace.h"
#include "tavu/mka/mka_server_records.h"

namespace tavu {

namespace mka_server_internal {

namespace {

// Null, after an error trace with the sender's name, when the module or the client is not there.
client* receiving_client(uint32_t client_id, const char* operation) {
    if (!is_in_state(self.state, GLOBAL_STATE_READY, global_state_to_str, "TAVU", operation))
        return nullptr;
    return find_or_trace(client_id);
}

bool reply_header(uint32_t client_id, uint32_t number, uint32_t procedure_reference,
                  const char* operation = __builtin_FUNCTION()) {
    const client* to = receiving_client(client_id, operation);
    if (!to)
        return false;
    send_header(*to, number, procedure_reference);
    return true;
}

bool reply_rej(uint32_t client_id, uint32_t number, uint32_t procedure_reference, uint32_t reason,
               const char* operation = __builtin_FUNCTION()) {
    const client* to = receiving_client(client_id, operation);
    if (!to)
        return false;
    send_rej(to->mailbox, number, to->connection_reference, procedure_reference, reason);
    return true;
}

bool request_sa(uint32_t client_id, uint32_t number, uint32_t procedure_reference, const ca_name& ca,
                const sci& identifier, const mka_sa_parameters& parameters,
                const char* operation = __builtin_FUNCTION()) {
    const client* to = receiving_client(client_id, operation);
    if (!to)
        return false;
    outgoing<mka_create_sa_rreq> message(number, std::max(parameters.sak_len, 1u));
    message->ca.assign(ca);
    message->identifier = identifier;
    message->ca_parameter = parameters.ca_parameter;
    message->cipher_suite = parameters.cipher_suite;
    message->an = parameters.an;
    message->packet_number = parameters.packet_number;
    message->key_name.assign(parameters.key_name);
    message->sak_len = parameters.sak_len;
    if (parameters.sak_len > 0)
        memcpy(message.extra(), parameters.sak.octets(), parameters.sak_len);
    send(*to, message, procedure_reference);
    return true;
}

} // namespace

} // namespace mka_server_internal

using namespace mka_server_internal;

bool mka_server_send_join_ca_cfm(uint32_t client_id, uint32_t procedure_reference, uint32_t standard) {
    TAVU_FUNCTION();
    client* to = receiving_client(client_id, __func__);
    if (!to)
        return false;
    to->is_member = true;
    outgoing<mka_join_ca_cfm> message(MKA_JOIN_CA_CFM);
    message->standard = standard;
    send(*to, message, procedure_reference);
    return true;
}

bool mka_server_send_join_ca_rej(uint32_t client_id, uint32_t procedure_reference, uint32_t reason) {
    TAVU_FUNCTION();
    return reply_rej(client_id, MKA_JOIN_CA_REJ, procedure_reference, reason);
}

bool mka_server_send_leave_ca_rreq(uint32_t client_id, uint32_t procedure_reference, const ca_name& ca) {
    TAVU_FUNCTION();
    client* to = receiving_client(client_id, __func__);
    if (!to)
        return false;
    to->is_member = false;
    outgoing<mka_leave_ca_req> message(MKA_LEAVE_CA_RREQ);
    message->ca.assign(ca);
    send(*to, message, procedure_reference);
    return true;
}

bool mka_server_send_leave_ca_cfm(uint32_t client_id, uint32_t procedure_reference) {
    TAVU_FUNCTION();
    return reply_header(client_id, MKA_LEAVE_CA_CFM, procedure_reference);
}

bool mka_server_send_create_tx_sc_cfm(uint32_t client_id, uint32_t procedure_reference) {
    TAVU_FUNCTION();
    return reply_header(client_id, MKA_CREATE_TX_SC_CFM, procedure_reference);
}

bool mka_server_send_create_tx_sc_rej(uint32_t client_id, uint32_t procedure_reference, uint32_t reason) {
    TAVU_FUNCTION();
    return reply_rej(client_id, MKA_CREATE_TX_SC_REJ, procedure_reference, reason);
}

bool mka_server_send_create_rx_sc_req(uint32_t client_id, uint32_t procedure_reference, const ca_name& ca,
                                      const sci& peer) {
    TAVU_FUNCTION();
    const client* to = receiving_client(client_id, __func__);
    if (!to)
        return false;
    outgoing<mka_create_sc_req> message(MKA_CREATE_RX_SC_RREQ);
    message->ca.assign(ca);
    message->identifier = peer;
    send(*to, message, procedure_reference);
    return true;
}

bool mka_server_send_create_tx_sa_rreq(uint32_t client_id, uint32_t procedure_reference, const ca_name& ca,
                                       const sci& own, const mka_sa_parameters& parameters) {
    TAVU_FUNCTION();
    return request_sa(client_id, MKA_CREATE_TX_SA_RREQ, procedure_reference, ca, own, parameters);
}

bool mka_server_send_create_rx_sa_rreq(uint32_t client_id, uint32_t procedure_reference, const ca_name& ca,
                                       const sci& peer, const mka_sa_parameters& parameters) {
    TAVU_FUNCTION();
    return request_sa(client_id, MKA_CREATE_RX_SA_RREQ, procedure_reference, ca, peer, parameters);
}

bool mka_server_send_update_protect_frames_rreq(uint32_t client_id, uint32_t procedure_reference,
                                                const ca_name& ca, bool protect_frames) {
    TAVU_FUNCTION();
    const client* to = receiving_client(client_id, __func__);
    if (!to)
        return false;
    outgoing<mka_update_protect_frames_rreq> message(MKA_UPDATE_PROTECT_FRAMES_RREQ);
    message->ca.assign(ca);
    message->protect_frames = protect_frames;
    send(*to, message, procedure_reference);
    return true;
}

} // namespace tavu
