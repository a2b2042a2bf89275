#include "tavu/key_server/key_server.h"

#include "base/dispatch.h"
#include "tavu/key_server/key_server_admission.h"
#include "tavu/key_server/key_server_ending.h"
#include "tavu/key_server/key_server_keying.h"
#include "tavu/key_server/key_server_requests.h"

namespace tavu {

namespace keysrv {

namespace {

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

using keysrv::change_ks_state;
using keysrv::self;
using keysrv::state_to_str;

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
    constexpr dispatch_row table[] = {
        {KEYSRV_KEY_REFRESH_TIMER_IND, keysrv::handle_key_refresh_timeout_ind, origin::prepared},
        {KEYSRV_MSG_TIMEOUT_IND, keysrv::handle_msg_timeout_ind, origin::prepared},
    };
    return dispatch_by(table, message);
}

} // namespace tavu
