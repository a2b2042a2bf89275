#include "tavu/key_server/key_server_ending.h"

#include "base/ignore_result.h"
#include "tavu/key_server/key_server_requests.h"

namespace tavu::keysrv {

// --- Dropping

void drop_all_ca_members(const ca_name& name) {
    KEYSRV_FUNCTION();
    connectivity_association* ca = find_ca_by_name(name);
    if (!ca) {
        TRACE_ERROR("KEYSRV: Could not find CA '%s'", name.c_str());
        return;
    }
    stop_key_refresh_timer(*ca);
    for (const ca_member& member : members_of(*ca)) {
        if (!ks_send_leave_ca_rreq(member, PROC_REF_LEAVE_CA))
            TRACE_ERROR("KEYSRV: Leave don't send to member.client_id %d", member.client_id);
    }
    delete_all_waiting_msg_for_ca(*ca);
    remove_ca_members(*ca);
    set_saks_aside(*ca);
    change_ca_state(*ca, CA_EMPTY);
}

bool delete_ca(const ca_name& name) {
    KEYSRV_FUNCTION();
    TRACE("KEYSRV: Deleting CA '%s'", name.c_str());
    connectivity_association* ca = find_ca_by_name(name);
    if (!ca)
        return false;
    ca->saks.clear();
    drop_all_ca_members(ca->name);
    self.cas.remove(*ca);
    return true;
}

void delete_all_ca() {
    KEYSRV_FUNCTION();
    while (const connectivity_association* ca = self.cas.first())
        ignore_result(delete_ca(ca->name));
}

// --- A member goes

void handle_ks_ca_member_leave_ca_req(uint32_t client_id, const oka_message* message) {
    KEYSRV_FUNCTION();
    trace_received(message);
    const auto& request = as<mka_leave_ca_req>(message);
    if (!find_ca_by_name(request.ca)) {
        TRACE_ERROR("KEYSRV: leave_ca: ca = %s not found (client_id=%u)", request.ca.printable().c_str(),
                    client_id);
        return;
    }
    const ca_member* member = find_ca_member_by_client_id(client_id);
    if (!member) {
        TRACE_ERROR("KEYSRV: leave_ca: client_id = %u not found (ca=%s)", client_id,
                    request.ca.printable().c_str());
        return;
    }
    ignore_result(ks_send_leave_ca_cfm(*member, request.header.procedure_reference));
    drop_all_ca_members(member->ca);
}

void handle_ks_ca_member_leave_ca_rcfm(uint32_t client_id, const oka_message* message) {
    KEYSRV_FUNCTION();
    trace_received(message);
    const ca_member* member = find_ca_member_by_client_id(client_id);
    if (!member) {
        TRACE_ERROR("KEYSRV: leave_ca: client_id = %u not found", client_id);
        return;
    }
    if (!find_ca_by_name(member->ca)) {
        TRACE_ERROR("KEYSRV: leave_ca: ca = %s not found (client_id=%u)", member->ca.c_str(), client_id);
        return;
    }
    ignore_result(ks_send_leave_ca_cfm(*member, as<message_header>(message).procedure_reference));
    drop_all_ca_members(member->ca);
}

void handle_ks_ca_member_connection_closed_ind(uint32_t client_id, const oka_message* message) {
    KEYSRV_FUNCTION();
    trace_received(message);
    if (const ca_member* member = find_ca_member_by_client_id(client_id))
        drop_all_ca_members(member->ca);
    else
        TRACE_ERROR("KEYSRV: handle_ks_ca_member_connection_closed_ind: client_id = %d", client_id);
}

namespace {

void lose(uint32_t client_id, const char* handler = __builtin_FUNCTION()) {
    if (const ca_member* member = find_ca_member_by_client_id(client_id))
        drop_all_ca_members(member->ca);
    else
        TRACE_ERROR("KEYSRV: %s: client_id = %u", handler, client_id);
}

} // namespace

void handle_ks_ca_member_peer_down_ind(uint32_t client_id) {
    KEYSRV_FUNCTION();
    lose(client_id);
}

void handle_ks_heartbeat_timeout_ind(uint32_t client_id) {
    KEYSRV_FUNCTION();
    lose(client_id);
}

// --- A member refuses, or does not answer

namespace {

void push_out(const ca_member& member, uint32_t procedure_reference) {
    delete_timeout_on_msg(member.client_id, procedure_reference);
    drop_all_ca_members(member.ca);
}

} // namespace

void handle_ks_ca_member_create_rx_sc_rrej(uint32_t client_id, const oka_message* message) {
    KEYSRV_FUNCTION();
    const ca_member* member = find_answering_member(client_id, message);
    if (!member)
        return;
    TRACE_ERROR("KEYSRV: handle_ks_ca_member_create_rx_sc_rrej: element id %u pushed out of ca %s (%s)",
                client_id, member->ca.c_str(), "rx_sc_creation rejected");
    push_out(*member, PROC_REF_RX_SC_CREATE);
}

void handle_ks_ca_member_create_rx_sa_rrej(uint32_t client_id, const oka_message* message) {
    KEYSRV_FUNCTION();
    const ca_member* member = find_answering_member(client_id, message);
    if (!member)
        return;
    TRACE_ERROR("KEYSRV: handle_ks_ca_member_create_rx_sa_rrej: element id %u pushed out of ca %s (%s)",
                client_id, member->ca.c_str(), "rx_sa_creation rejected");
    push_out(*member, PROC_REF_RX_SA_CREATE);
}

void handle_ks_ca_member_create_tx_sa_rrej(uint32_t client_id, const oka_message* message) {
    KEYSRV_FUNCTION();
    const ca_member* member = find_answering_member(client_id, message);
    if (!member)
        return;
    TRACE_ERROR("KEYSRV: handle_ks_ca_member_create_tx_sa_rrej: element id %u, ca %s (%s)", client_id,
                member->ca.c_str(), "tx_sa_creation rejected");
    push_out(*member, PROC_REF_TX_SA_CREATE);
}

void handle_mka_client_update_protect_frames_rrej(uint32_t client_id, const oka_message* message) {
    KEYSRV_FUNCTION();
    const ca_member* member = find_answering_member(client_id, message);
    if (!member)
        return;
    TRACE_INFO("KEYSRV: handle_mka_client_update_protect_frames_rrej: element id %u pushed out of ca %s (%s)",
               client_id, member->ca.c_str(), "protect frames rejected");
    push_out(*member, PROC_REF_PROTECT_FRAMES);
}

// An indication that crossed its confirmation drops the CA too.
void handle_msg_timeout_ind(const oka_message* message) {
    KEYSRV_FUNCTION();
    const auto* indication = view<keysrv_msg_timeout_ind>(message);
    if (!indication)
        return;
    trace_received(message);
    uint32_t client_id = indication->client_id;
    uint32_t awaited_number = indication->awaited_number;
    connectivity_association* ca = find_ca_by_name(indication->ca);
    if (!ca) {
        TRACE_ERROR("KEYSRV: CA '%s' not found, message='%s'", indication->ca.printable().c_str(),
                    ks_msg_no_to_str(awaited_number));
        return;
    }
    if (!find_ca_member_by_client_id(client_id)) {
        TRACE_ERROR("KEYSRV: client id = %u not found, CA='%s', message='%s'", client_id, ca->name.c_str(),
                    ks_msg_no_to_str(awaited_number));
        return;
    }
    forget_expired_timeout_on_msg(client_id, indication->awaited_procedure_reference);
    drop_all_ca_members(ca->name);
}

} // namespace tavu::keysrv
