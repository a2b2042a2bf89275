#include "tavu/mka/mka_server.h"

#include <algorithm>
#include <iterator>

#include "base/dispatch.h"
#include "base/trace.h"
#include "tavu/mka/mka_server_link.h"

namespace tavu {

namespace mka_server_internal {

namespace {

// --- Messages that are checked and handed up

bool verify_join_ca_req_size(const oka_message* message, uint32_t minimum) {
    TAVU_FUNCTION();
    if (!verify_msg_length_minimum_size(message, minimum))
        return false;
    uint32_t count = as<mka_join_ca_req>(message).num_of_information_elements;
    return verify_msg_length_equals(
        message,
        count == 0 ? minimum : size_with_information_elements(message, sizeof(mka_join_ca_req), count));
}

struct forwarding_row {
    uint32_t number;
    bool (*verify_size)(const oka_message* message, uint32_t size);
    uint32_t size;
    const char* firing; // "fire_" and the name of the handler here and there
    relay mka_server_callbacks::*callback;
};

#define FORWARD(number, verify_size, size, handler)                                                          \
    { number, verify_size, size, "fire_" #handler, &mka_server_callbacks::handler }

constexpr forwarding_row forwarding_table[] = {
    FORWARD(MKA_JOIN_CA_REQ, verify_join_ca_req_size,
            sizeof(mka_join_ca_req) + mka_empty_information_elements_size, handle_join_ca_req),
    FORWARD(MKA_LEAVE_CA_REQ, verify_msg_length_equals, sizeof(mka_leave_ca_req), handle_leave_ca_req),
    FORWARD(MKA_LEAVE_CA_RCFM, verify_msg_length_equals, sizeof(message_header), handle_leave_ca_rcfm),
    FORWARD(MKA_CREATE_TX_SC_REQ, verify_msg_length_equals, sizeof(mka_create_sc_req),
            handle_create_tx_sc_req),
    FORWARD(MKA_CREATE_RX_SC_RCFM, verify_msg_length_equals, sizeof(message_header),
            handle_create_rx_sc_rcfm),
    FORWARD(MKA_CREATE_RX_SC_RREJ, verify_msg_length_equals, sizeof(mka_rej), handle_create_rx_sc_rrej),
    FORWARD(MKA_CREATE_TX_SA_RCFM, verify_msg_length_equals, sizeof(message_header),
            handle_create_tx_sa_rcfm),
    FORWARD(MKA_CREATE_TX_SA_RREJ, verify_msg_length_equals, sizeof(mka_rej), handle_create_tx_sa_rrej),
    FORWARD(MKA_CREATE_RX_SA_RCFM, verify_msg_length_equals, sizeof(message_header),
            handle_create_rx_sa_rcfm),
    FORWARD(MKA_CREATE_RX_SA_RREJ, verify_msg_length_equals, sizeof(mka_rej), handle_create_rx_sa_rrej),
    FORWARD(MKA_UPDATE_PROTECT_FRAMES_RCFM, verify_msg_length_equals, sizeof(message_header),
            handle_update_protect_frames_rcfm),
    FORWARD(MKA_UPDATE_PROTECT_FRAMES_RREJ, verify_msg_length_equals, sizeof(mka_rej),
            handle_update_protect_frames_rrej),
};
#undef FORWARD

void forward(const oka_message* message, const forwarding_row& row) {
    const function_trace function_trace_here("TAVU", row.firing + strlen("fire_"), __FILE__, __LINE__);
    if (!row.verify_size(message, row.size))
        return;
    if (const client* from = sender_of(message))
        fire(from->id, row.firing, self.callbacks.*row.callback, message);
}

// What arrives every few seconds stands first.
constexpr dispatch_row dispatch_table[] = {
    {MKA_HEARTBEAT_REQ, handle_heartbeat_req},
    {MKA_HEARTBEAT_RCFM, handle_heartbeat_rcfm},
    {MKA_SERVER_HEARTBEAT_TIMEOUT_IND, handle_heartbeat_timeout_ind, origin::prepared},
    {MKA_CONNECTION_ESTABLISH_REQ, connection_establish_req},
    {MKA_CONNECTION_CLOSE_REQ, handle_connection_close_req},
    {MKA_CAPABILITIES_GET_REQ, handle_get_capabilities_req},
    {MKA_CLIENT_DOWN_IND, handle_client_down_ind, origin::prepared},
};

bool is_complete(const mka_server_callbacks* callbacks) {
    return callbacks && callbacks->handle_connection_closed_ind &&
           callbacks->handle_mka_server_peer_down_ind && callbacks->handle_heartbeat_timeout_ind &&
           std::all_of(std::begin(forwarding_table), std::end(forwarding_table),
                       [&](const forwarding_row& row) { return callbacks->*row.callback != nullptr; });
}

} // namespace

} // namespace mka_server_internal

using namespace mka_server_internal;

bool mka_server_init(oka_mailbox parent, const char* server_name, const mka_server_callbacks* callbacks) {
    TAVU_FUNCTION();
    if (!is_in_state(self.state, GLOBAL_STATE_UNINITIALIZED, global_state_to_str))
        return false;
    if (!is_complete(callbacks)) {
        TRACE_ERROR("TAVU: Callbacks parameter or a callback function is NULL");
        return false;
    }
    self.callbacks = *callbacks;
    self.server_name.assign(server_name);
    self.parent = parent;
    self.clients.clear();
    change_state(GLOBAL_STATE_INITIALIZED);
    return true;
}

bool mka_server_start() {
    TAVU_FUNCTION();
    if (!is_in_state(self.state, GLOBAL_STATE_INITIALIZED, global_state_to_str))
        return false;
    self.own_mailbox = oka_clone_mailbox(self.parent, self.server_name.c_str());
    if (self.own_mailbox == OKA_MAILBOX_NONE) // the messaging service has said why
        return false;
    change_state(GLOBAL_STATE_READY);
    return true;
}

bool mka_server_stop() {
    TAVU_FUNCTION();
    if (!is_in_state(self.state, GLOBAL_STATE_READY, global_state_to_str))
        return false;
    if (self.own_mailbox != OKA_MAILBOX_NONE) {
        oka_delete_mailbox(self.own_mailbox);
        self.own_mailbox = OKA_MAILBOX_NONE;
    }
    clear_data();
    change_state(GLOBAL_STATE_INITIALIZED);
    return true;
}

bool mka_server_dispatch_message(const oka_message* message) {
    TAVU_FUNCTION();
    if (dispatch_by(dispatch_table, message))
        return true;
    const forwarding_row* row = find_row(forwarding_table, message);
    if (row)
        forward(message, *row);
    return row;
}

} // namespace tavu
