#include "tavu/key_server/key_server_records.h"

namespace tavu::keysrv {

namespace {

// The key itself stays in the association's record.
mka_sa_parameters sa_parameters(const connectivity_association& ca, const secure_association& sa) {
    return {
        .ca_parameter = ca.ca_parameter,
        .cipher_suite = ca.cipher,
        .an = sa.an,
        .packet_number = sa.packet_number,
        .key_name = sa.key_name,
        .sak_len = sa.key_len,
        .sak = sa.key.octets(),
    };
}

} // namespace

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

bool ks_send_create_rx_sa_rreq(ca_member& member, const sci& peer, uint32_t an,
                               uint32_t procedure_reference) {
    KEYSRV_FUNCTION();
    if (!is_ready())
        return false;
    const connectivity_association* ca = find_ca_by_name(member.ca);
    rx_sc* channel = find_rx_sc_by_sci(member, peer);
    if (!ca || !channel)
        return false;
    return mka_server_send_create_rx_sa_rreq(member.client_id, procedure_reference, ca->name, peer,
                                             sa_parameters(*ca, channel->sas[an])) &&
           create_timeout_on_msg(member, MKA_CREATE_RX_SA_RREQ, procedure_reference);
}

bool ks_send_create_tx_sa_rreq(ca_member& member, uint32_t an, uint32_t procedure_reference) {
    KEYSRV_FUNCTION();
    if (!is_ready())
        return false;
    const connectivity_association* ca = find_ca_by_name(member.ca);
    if (!ca)
        return false;
    return mka_server_send_create_tx_sa_rreq(member.client_id, procedure_reference, ca->name,
                                             member.identifier, sa_parameters(*ca, member.tx_sas[an])) &&
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
