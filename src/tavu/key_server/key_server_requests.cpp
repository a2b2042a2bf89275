#include "tavu/key_server/key_server_requests.h"

namespace tavu::keysrv {

// --- Waiting messages

namespace {

void start_msg_timeout(waiting_msg& waiting, const ca_name& ca) {
    KEYSRV_FUNCTION();
    outgoing<keysrv_msg_timeout_ind> message(KEYSRV_MSG_TIMEOUT_IND);
    message->header.procedure_reference = PROC_REF_MSG_TRANSACTION;
    message->awaited_number = waiting.message_number;
    message->awaited_procedure_reference = waiting.procedure_reference;
    message->client_id = waiting.client_id;
    message->ca = ca;
    waiting.timer = oka_timer_request_sig(key_server_msg_timeout_ms, message.prepared());
}

// False when the record cannot be allocated.
bool create_timeout_on_msg(const ca_member& member, uint32_t message_number, uint32_t procedure_reference) {
    KEYSRV_FUNCTION();
    waiting_msg* waiting = self.waiting_msgs.add();
    if (!waiting)
        return false;
    waiting->client_id = member.client_id;
    waiting->procedure_reference = procedure_reference;
    waiting->message_number = message_number;
    start_msg_timeout(*waiting, member.ca);
    return true;
}

waiting_msg* find_waiting_msg(uint32_t client_id, uint32_t procedure_reference) {
    KEYSRV_FUNCTION();
    waiting_msg* found = self.waiting_msgs.find([&](const waiting_msg& candidate) {
        return candidate.client_id == client_id && candidate.procedure_reference == procedure_reference;
    });
    if (found)
        TRACE("KEYSRV: Found waiting message for client id = %u, procedure reference='%s'", client_id,
              proc_ref_to_str(procedure_reference));
    else
        TRACE("KEYSRV: No waiting message found for client id = %u, procedure reference='%s'", client_id,
              proc_ref_to_str(procedure_reference));
    return found;
}

waiting_msg* find_waiting_msg_by_client_id(uint32_t client_id) {
    KEYSRV_FUNCTION();
    return self.waiting_msgs.find(
        [&](const waiting_msg& candidate) { return candidate.client_id == client_id; });
}

void delete_waiting_msg(waiting_msg& waiting) {
    KEYSRV_FUNCTION();
    if (waiting.timer != 0) {
        TRACE("KEYSRV: Stopping message timer for client id = %u, procedure reference='%s'",
              waiting.client_id, proc_ref_to_str(waiting.procedure_reference));
        oka_timer_cancel(waiting.timer);
    } else {
        TRACE("KEYSRV: No message timer running for client id = %u, procedure reference='%s'",
              waiting.client_id, proc_ref_to_str(waiting.procedure_reference));
    }
    self.waiting_msgs.remove(waiting);
}

} // namespace

void delete_timeout_on_msg(uint32_t client_id, uint32_t procedure_reference) {
    KEYSRV_FUNCTION();
    if (waiting_msg* waiting = find_waiting_msg(client_id, procedure_reference))
        delete_waiting_msg(*waiting);
}

// The timer has expired, so there is none to cancel.
void forget_expired_timeout_on_msg(uint32_t client_id, uint32_t procedure_reference) {
    KEYSRV_FUNCTION();
    if (waiting_msg* waiting = find_waiting_msg(client_id, procedure_reference)) {
        waiting->timer = 0;
        delete_waiting_msg(*waiting);
    }
}

void delete_all_waiting_msg_for_ca(const connectivity_association& ca) {
    KEYSRV_FUNCTION();
    for (const ca_member& member : members_of(ca)) {
        while (waiting_msg* waiting = find_waiting_msg_by_client_id(member.client_id))
            delete_waiting_msg(*waiting);
    }
}

void delete_all_waiting_msg() {
    KEYSRV_FUNCTION();
    while (waiting_msg* waiting = self.waiting_msgs.first())
        delete_waiting_msg(*waiting);
}

// --- Sending

bool ks_send_join_ca_cfm(const ca_member& member, uint32_t procedure_reference, uint32_t standard) {
    KEYSRV_FUNCTION();
    return is_ready() && mka_server_send_join_ca_cfm(member.client_id, procedure_reference, standard);
}

bool ks_send_join_ca_rej_by_client_id(uint32_t client_id, uint32_t procedure_reference, uint32_t reason) {
    KEYSRV_FUNCTION();
    return is_ready() && mka_server_send_join_ca_rej(client_id, procedure_reference, reason);
}

bool ks_send_leave_ca_rreq(const ca_member& member, uint32_t procedure_reference) {
    KEYSRV_FUNCTION();
    return is_ready() && mka_server_send_leave_ca_rreq(member.client_id, procedure_reference, member.ca);
}

bool ks_send_leave_ca_cfm(const ca_member& member, uint32_t procedure_reference) {
    KEYSRV_FUNCTION();
    return is_ready() && mka_server_send_leave_ca_cfm(member.client_id, procedure_reference);
}

bool ks_send_create_tx_sc_cfm(const ca_member& member, uint32_t procedure_reference) {
    KEYSRV_FUNCTION();
    return is_ready() && mka_server_send_create_tx_sc_cfm(member.client_id, procedure_reference);
}

bool ks_send_create_tx_sc_rej(const ca_member& member, uint32_t procedure_reference, uint32_t reason) {
    KEYSRV_FUNCTION();
    return is_ready() && mka_server_send_create_tx_sc_rej(member.client_id, procedure_reference, reason);
}

bool ks_send_create_rx_sc_rreq(const ca_member& member, const sci& peer, uint32_t procedure_reference) {
    KEYSRV_FUNCTION();
    return is_ready() &&
           mka_server_send_create_rx_sc_req(member.client_id, procedure_reference, member.ca, peer) &&
           create_timeout_on_msg(member, MKA_CREATE_RX_SC_RREQ, procedure_reference);
}

bool ks_send_create_rx_sa_rreq(const ca_member& member, const sak_record& sak, uint32_t procedure_reference) {
    KEYSRV_FUNCTION();
    return is_ready() &&
           mka_server_send_create_rx_sa_rreq(member.client_id, procedure_reference, member.ca, sak.identifier,
                                             sak.sa) &&
           create_timeout_on_msg(member, MKA_CREATE_RX_SA_RREQ, procedure_reference);
}

bool ks_send_create_tx_sa_rreq(const ca_member& member, const sak_record& sak, uint32_t procedure_reference) {
    KEYSRV_FUNCTION();
    return is_ready() &&
           mka_server_send_create_tx_sa_rreq(member.client_id, procedure_reference, member.ca, sak.identifier,
                                             sak.sa) &&
           create_timeout_on_msg(member, MKA_CREATE_TX_SA_RREQ, procedure_reference);
}

bool ks_send_update_protect_rreq(const ca_member& member, bool protect_frames, uint32_t procedure_reference) {
    KEYSRV_FUNCTION();
    return is_ready() &&
           mka_server_send_update_protect_frames_rreq(member.client_id, procedure_reference, member.ca,
                                                      protect_frames) &&
           create_timeout_on_msg(member, MKA_UPDATE_PROTECT_FRAMES_RREQ, procedure_reference);
}

} // namespace tavu::keysrv
