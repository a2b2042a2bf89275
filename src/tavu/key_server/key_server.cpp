#include "tavu/key_server/key_server.h"

#include <tuple>

#include "tavu/key_server/key_server_records.h"

namespace tavu {

namespace {

struct {
    keysrv_global_state state = KEYSRV_GLOBAL_STATE_UNINITIALIZED;
    key_server_callbacks callbacks = {};
} self;

constexpr enum_text state_names[] = {
    ENUM_TEXT(KEYSRV_GLOBAL_STATE_UNINITIALIZED),
    ENUM_TEXT(KEYSRV_GLOBAL_STATE_INITIAL),
    ENUM_TEXT(KEYSRV_GLOBAL_STATE_STARTED),
    ENUM_TEXT(KEYSRV_GLOBAL_STATE_READY),
};

const char* state_to_str(keysrv_global_state state) {
    return enum_to_str(state_names, state);
}

void change_ks_state(keysrv_global_state state) {
    KEYSRV_FUNCTION();
    TRACE_STATE_CHANGE("KEYSRV:  change_ks_state: changing state: '%s' -> '%s'", state_to_str(self.state),
                       state_to_str(state));
    self.state = state;
}

} // namespace

namespace keysrv {

bool is_ready(const char* operation, const char* file, int line) {
    return is_in_state(self.state, KEYSRV_GLOBAL_STATE_READY, state_to_str, "KEYSRV", operation, file, line);
}

bool generate_sak(uint32_t key_len, uint8_t* key) {
    KEYSRV_FUNCTION();
    if (!key) {
        TRACE_ERROR("KEYSRV: Output buffer is NULL");
        return false;
    }
    if (!self.callbacks.generate_sak(key_len, key)) {
        TRACE_ERROR("KEYSRV: Could not generate new SAK");
        return false;
    }
    return true;
}

const char* ks_msg_no_to_str(uint32_t number) {
    return mka_msg_no_to_str(number, KEYSRV_KEY_REFRESH_TIMER_IND);
}

void trace_received(const oka_message* message) {
    const auto& header = as<message_header>(message);
    TRACE_RECEIVE(message, "KEYSRV: %s connection reference=%u, procedure reference=%u",
                  ks_msg_no_to_str(header.number), uint32_t{header.connection_reference},
                  uint32_t{header.procedure_reference});
}

// --- A member goes, and its whole CA with it

namespace {

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
    std::ignore = ks_send_leave_ca_cfm(*member, request.header.procedure_reference);
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
    std::ignore = ks_send_leave_ca_cfm(*member, as<message_header>(message).procedure_reference);
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

void handle_ks_ca_member_peer_down_ind(uint32_t client_id) {
    KEYSRV_FUNCTION();
    if (const ca_member* member = find_ca_member_by_client_id(client_id))
        drop_all_ca_members(member->ca);
    else
        TRACE_ERROR("KEYSRV: handle_ks_ca_member_peer_down_ind: client_id = %u", client_id);
}

void handle_ks_heartbeat_timeout_ind(uint32_t client_id) {
    KEYSRV_FUNCTION();
    if (const ca_member* member = find_ca_member_by_client_id(client_id))
        drop_all_ca_members(member->ca);
    else
        TRACE_ERROR("KEYSRV: handle_ks_heartbeat_timeout_ind: client_id = %u", client_id);
}

// --- A member refuses, and its whole CA starts over

// The common start of all rejections; `handler` is its caller's name.
const ca_member* find_rejecting_member(uint32_t client_id, const oka_message* message,
                                       const char* handler = __builtin_FUNCTION()) {
    trace_received(message);
    const ca_member* member = find_ca_member_by_client_id(client_id);
    if (!member)
        TRACE_ERROR("KEYSRV: %s: element not found (client_id=%u)", handler, client_id);
    return member;
}

void push_out(const ca_member& member, uint32_t procedure_reference) {
    delete_timeout_on_msg(member.client_id, procedure_reference);
    drop_all_ca_members(member.ca);
}

void handle_ks_ca_member_create_rx_sc_rrej(uint32_t client_id, const oka_message* message) {
    KEYSRV_FUNCTION();
    const ca_member* member = find_rejecting_member(client_id, message);
    if (!member)
        return;
    TRACE_ERROR("KEYSRV: handle_ks_ca_member_create_rx_sc_rrej: element id %u pushed out of ca %s (%s)",
                client_id, member->ca.c_str(), "rx_sc_creation rejected");
    push_out(*member, PROC_REF_RX_SC_CREATE);
}

void handle_ks_ca_member_create_rx_sa_rrej(uint32_t client_id, const oka_message* message) {
    KEYSRV_FUNCTION();
    const ca_member* member = find_rejecting_member(client_id, message);
    if (!member)
        return;
    TRACE_ERROR("KEYSRV: handle_ks_ca_member_create_rx_sa_rrej: element id %u pushed out of ca %s (%s)",
                client_id, member->ca.c_str(), "rx_sa_creation rejected");
    push_out(*member, PROC_REF_RX_SA_CREATE);
}

void handle_ks_ca_member_create_tx_sa_rrej(uint32_t client_id, const oka_message* message) {
    KEYSRV_FUNCTION();
    const ca_member* member = find_rejecting_member(client_id, message);
    if (!member)
        return;
    TRACE_ERROR("KEYSRV: handle_ks_ca_member_create_tx_sa_rrej: element id %u, ca %s (%s)", client_id,
                member->ca.c_str(), "tx_sa_creation rejected");
    push_out(*member, PROC_REF_TX_SA_CREATE);
}

void handle_mka_client_update_protect_frames_rrej(uint32_t client_id, const oka_message* message) {
    KEYSRV_FUNCTION();
    const ca_member* member = find_rejecting_member(client_id, message);
    if (!member)
        return;
    TRACE_INFO("KEYSRV: handle_mka_client_update_protect_frames_rrej: element id %u pushed out of ca %s (%s)",
               client_id, member->ca.c_str(), "protect frames rejected");
    push_out(*member, PROC_REF_PROTECT_FRAMES);
}

constexpr mka_server_callbacks server_callbacks = {
    .handle_connection_closed_ind = handle_ks_ca_member_connection_closed_ind,
    .handle_mka_server_peer_down_ind = handle_ks_ca_member_peer_down_ind,
    .handle_leave_ca_req = handle_ks_ca_member_leave_ca_req,
    .handle_leave_ca_rcfm = handle_ks_ca_member_leave_ca_rcfm,
    .handle_create_tx_sc_req = handle_ks_ca_member_create_tx_sc_req,
    .handle_create_rx_sc_rrej = handle_ks_ca_member_create_rx_sc_rrej,
    .handle_create_rx_sc_rcfm = handle_ks_ca_member_create_rx_sc_rcfm,
    .handle_create_tx_sa_rcfm = handle_ks_ca_member_create_tx_sa_rcfm,
    .handle_create_tx_sa_rrej = handle_ks_ca_member_create_tx_sa_rrej,
    .handle_create_rx_sa_rcfm = handle_ks_ca_member_create_rx_sa_rcfm,
    .handle_create_rx_sa_rrej = handle_ks_ca_member_create_rx_sa_rrej,
    .handle_update_protect_frames_rcfm = handle_mka_client_update_protect_frames_rcfm,
    .handle_update_protect_frames_rrej = handle_mka_client_update_protect_frames_rrej,
    .handle_join_ca_req = handle_ks_ca_member_join_ca_req,
    .handle_heartbeat_timeout_ind = handle_ks_heartbeat_timeout_ind,
};

ca_name stored_name(const char* name) {
    ca_name stored;
    stored.assign(name);
    return stored;
}

void clear_data() {
    KEYSRV_FUNCTION();
    delete_all_ca();
    delete_all_waiting_msg();
}

} // namespace

} // namespace keysrv

// --- Life cycle

bool key_server_init(oka_mailbox parent, const key_server_callbacks* callbacks) {
    KEYSRV_FUNCTION();
    if (!is_in_state(self.state, KEYSRV_GLOBAL_STATE_UNINITIALIZED, state_to_str, "KEYSRV"))
        return false;
    if (!callbacks || !callbacks->generate_sak) {
        TRACE_ERROR("KEYSRV: Callbacks parameter or a callback function is NULL");
        return false;
    }
    self.callbacks = *callbacks;
    if (!mka_server_init(parent, key_server_mailbox_name, &keysrv::server_callbacks)) {
        TRACE_ERROR("KEYSRV: MKA server initialization failed");
        return false;
    }
    change_ks_state(KEYSRV_GLOBAL_STATE_INITIAL);
    return true;
}

bool key_server_start() {
    KEYSRV_FUNCTION();
    if (!is_in_state(self.state, KEYSRV_GLOBAL_STATE_INITIAL, state_to_str, "KEYSRV"))
        return false;
    if (!mka_server_start())
        return false;
    change_ks_state(KEYSRV_GLOBAL_STATE_READY);
    return true;
}

bool key_server_stop() {
    KEYSRV_FUNCTION();
    if (!keysrv::is_ready())
        return false;
    keysrv::clear_data();
    change_ks_state(KEYSRV_GLOBAL_STATE_INITIAL);
    return true;
}

bool key_server_add_ca(const char* name) {
    KEYSRV_FUNCTION();
    return keysrv::is_ready() && keysrv::add_ca(keysrv::stored_name(name));
}

bool key_server_remove_ca(const char* name) {
    KEYSRV_FUNCTION();
    return keysrv::is_ready() && keysrv::delete_ca(keysrv::stored_name(name));
}

bool ks_dispatch_message(const oka_message* message) {
    KEYSRV_FUNCTION();
    if (!keysrv::is_ready())
        return false;
    switch (message->number) {
    case KEYSRV_KEY_REFRESH_TIMER_IND:
        keysrv::handle_key_refresh_timeout_ind(message);
        return true;
    case KEYSRV_MSG_TIMEOUT_IND:
        keysrv::handle_msg_timeout_ind(message);
        return true;
    default:
        return false;
    }
}

} // namespace tavu
