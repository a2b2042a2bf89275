#include "tavu/mka/mka_client.h"

#include "base/dispatch.h"
#include "base/trace.h"
#include "tavu/mka/mka_client_link.h"
#include "tavu/mka/mka_client_requests.h"

namespace tavu {

namespace mka_client_internal {

namespace {

constexpr const char* mailbox_name_prefix = "mka-client";
constexpr const char* uninitialized_ca_name = "<uninitialized>";

bool is_complete(const mka_client_callbacks* callbacks) {
    return callbacks && callbacks->handle_mka_client_create_tx_sc_cfm &&
           callbacks->handle_mka_client_create_tx_sc_rej && callbacks->handle_mka_client_create_rx_sc_req &&
           callbacks->handle_mka_client_create_tx_sa_req && callbacks->handle_mka_client_create_rx_sa_req &&
           callbacks->handle_mka_client_update_protect_frames_req &&
           callbacks->handle_mka_client_ca_joined_ind && callbacks->handle_mka_client_ca_left_ind &&
           callbacks->handle_mka_connection_close_cfm;
}

unsigned get_number_of_clients() {
    TAVU_FUNCTION();
    return self.clients.size();
}

// 0 when all are taken.
uint32_t allocate_new_client_id() {
    TAVU_FUNCTION();
    for (uint32_t id = 1; id <= mka_client_max_clients; id++) {
        if (!find_mka_data_by_id(id)) {
            TRACE("TAVU: Allocated new client id = %u", id);
            return id;
        }
    }
    TRACE_ERROR("TAVU: Could not allocate new id. Maximum number of clients = %u. This should never happen.",
                mka_client_max_clients);
    return 0;
}

client* create_mka_data_element(uint32_t id) {
    TAVU_FUNCTION();
    client* created = self.clients.add();
    if (!created)
        return nullptr;
    created->id = id;
    created->ca.assign(uninitialized_ca_name);
    created->own_mailbox = OKA_MAILBOX_NONE;
    created->server_mailbox = OKA_MAILBOX_NONE;
    snprintf(created->mailbox_name.octets, sizeof created->mailbox_name.octets, "%s-%u", mailbox_name_prefix,
             id);
    return created;
}

void delete_client(client& deleted) {
    TAVU_FUNCTION();
    TRACE("TAVU: Deleting client %u", deleted.id);
    disconnect(deleted);
    self.clients.remove(deleted);
}

void clear_data() {
    TAVU_FUNCTION();
    TRACE("TAVU: Removing all clients");
    while (client* newest = self.clients.first())
        delete_client(*newest);
}

// What arrives every few seconds stands first.
constexpr dispatch_row dispatch_table[] = {
    {MKA_HEARTBEAT_CFM, handle_heartbeat_cfm},
    {MKA_HEARTBEAT_RREQ, handle_heartbeat_rreq},
    {MKA_CLIENT_HEARTBEAT_TIMEOUT_IND, handle_heartbeat_timeout_ind, origin::prepared},
    {MKA_CONNECTION_ESTABLISH_CFM, handle_connection_establish_cfm},
    {MKA_CONNECTION_ESTABLISH_REJ, handle_connection_establish_rej},
    {MKA_CONNECTION_CLOSE_CFM, handle_connection_close_cfm},
    {MKA_CAPABILITIES_GET_CFM, handle_get_capabilities_cfm},
    {MKA_CAPABILITIES_GET_REJ, handle_get_capabilities_rej},
    {MKA_JOIN_CA_CFM, handle_join_ca_cfm},
    {MKA_JOIN_CA_REJ, handle_join_ca_rej},
    {MKA_LEAVE_CA_CFM, handle_leave_ca_cfm},
    {MKA_LEAVE_CA_RREQ, handle_leave_ca_rreq},
    {MKA_CREATE_TX_SC_CFM, handle_create_tx_sc_cfm},
    {MKA_CREATE_TX_SC_REJ, handle_create_tx_sc_rej},
    {MKA_CREATE_RX_SC_RREQ, handle_create_rx_sc_rreq},
    {MKA_CREATE_TX_SA_RREQ, handle_create_tx_sa_rreq},
    {MKA_CREATE_RX_SA_RREQ, handle_create_rx_sa_rreq},
    {MKA_UPDATE_PROTECT_FRAMES_RREQ, handle_update_protect_frames_rreq},
    {MKA_SERVER_UP_IND, handle_server_up_ind, origin::prepared},
    {MKA_SERVER_DOWN_IND, handle_peer_down_ind, origin::prepared},
};

} // namespace

} // namespace mka_client_internal

using namespace mka_client_internal;

bool mka_client_init(oka_mailbox parent, const mka_client_callbacks* callbacks) {
    TAVU_FUNCTION();
    if (!is_in_state(self.state, MKA_GLOBAL_STATE_UNINITIALIZED, global_state_to_str))
        return false;
    if (!is_complete(callbacks)) {
        TRACE_ERROR("TAVU: Callbacks parameter or a callback function is NULL");
        return false;
    }
    self.callbacks = *callbacks;
    self.parent = parent;
    self.clients.clear();
    change_global_state(MKA_GLOBAL_STATE_INITIALIZED);
    return true;
}

bool mka_client_start() {
    TAVU_FUNCTION();
    if (!is_in_state(self.state, MKA_GLOBAL_STATE_INITIALIZED, global_state_to_str))
        return false;
    change_global_state(MKA_GLOBAL_STATE_READY);
    return true;
}

bool mka_client_stop() {
    TAVU_FUNCTION();
    if (!is_in_state(self.state, MKA_GLOBAL_STATE_READY, global_state_to_str))
        return false;
    clear_data();
    change_global_state(MKA_GLOBAL_STATE_INITIALIZED);
    return true;
}

uint32_t mka_client_create() {
    TAVU_FUNCTION();
    if (!is_in_state(self.state, MKA_GLOBAL_STATE_READY, global_state_to_str))
        return 0;
    TRACE("TAVU: Creating a new MKA client");
    if (get_number_of_clients() >= mka_client_max_clients) {
        TRACE_ERROR("TAVU: Maximum number of clients = %u reached", mka_client_max_clients);
        return 0;
    }
    uint32_t id = allocate_new_client_id();
    if (id == 0 || !create_mka_data_element(id))
        return 0;
    TRACE("TAVU: Client is created: client id = %u", id);
    return id;
}

bool mka_client_delete(uint32_t client_id) {
    TAVU_FUNCTION();
    if (!is_in_state(self.state, MKA_GLOBAL_STATE_READY, global_state_to_str))
        return false;
    client* deleted = find_mka_data_by_id(client_id);
    if (!deleted) {
        TRACE_ERROR("TAVU: Could not find client %u", client_id);
        return false;
    }
    delete_client(*deleted);
    return true;
}

bool mka_client_join_ca(uint32_t client_id, const char* ca, const char* key_server_name, uint32_t port_speed,
                        const mka_802_1ae_2006_capabilities* capabilities) {
    TAVU_FUNCTION();
    if (!is_in_state(self.state, MKA_GLOBAL_STATE_READY, global_state_to_str))
        return false;
    TRACE("TAVU: Joining CA for client client id = %u, CA name = '%s'", client_id, ca);
    client* joining = find_mka_data_by_id(client_id);
    if (!joining) {
        TRACE_ERROR("TAVU: Could not find client client id = %u", client_id);
        return false;
    }
    if (joining->state != MKA_STATE_CREATED && joining->state != MKA_STATE_CA_LEFT) {
        trace_wrong_state("TAVU", __func__, state_to_str(joining->state),
                          "MKA_STATE_CREATED or MKA_STATE_CA_LEFT", __FILE__, __LINE__);
        return false;
    }
    // A CA that was left at the server's word keeps its connection, and so its mailbox.
    if (joining->own_mailbox != OKA_MAILBOX_NONE) {
        TRACE_ERROR("TAVU: Client %u mailbox is not uninitialized: %u", client_id, joining->own_mailbox);
        return false;
    }
    joining->ca.assign(ca);
    joining->port_speed = port_speed;
    joining->has_capabilities = capabilities != nullptr;
    if (capabilities)
        joining->capabilities = *capabilities;
    joining->own_mailbox = oka_clone_mailbox(self.parent, joining->mailbox_name.c_str());
    if (joining->own_mailbox == OKA_MAILBOX_NONE) // the messaging service has said why
        return false;
    locate_server(*joining, key_server_name);
    change_state(*joining, MKA_STATE_LOCATING);
    return true;
}

bool mka_client_dispatch_message(const oka_message* message) {
    TAVU_FUNCTION();
    if (!is_in_state(self.state, MKA_GLOBAL_STATE_READY, global_state_to_str))
        return false;
    return dispatch_by(dispatch_table, message);
}

} // namespace tavu
