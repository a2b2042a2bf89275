// What ends a membership. A CA never loses only one member: when anything happens to one, all are told to
// leave, and join again.
#pragma once

#include "tavu/key_server/key_server_records.h"

namespace tavu::keysrv {

// Tells all members to leave and frees them. `name` may be the one in a member.
void drop_all_ca_members(const ca_name& name);
[[nodiscard]] bool delete_ca(const ca_name& name);
void delete_all_ca();

// A member leaves or is lost.
void handle_ks_ca_member_leave_ca_req(uint32_t client_id, const oka_message* message);
void handle_ks_ca_member_leave_ca_rcfm(uint32_t client_id, const oka_message* message);
void handle_ks_ca_member_connection_closed_ind(uint32_t client_id, const oka_message* message);
void handle_ks_ca_member_peer_down_ind(uint32_t client_id);
void handle_ks_heartbeat_timeout_ind(uint32_t client_id);

// A member refuses, or does not answer.
void handle_ks_ca_member_create_rx_sc_rrej(uint32_t client_id, const oka_message* message);
void handle_ks_ca_member_create_rx_sa_rrej(uint32_t client_id, const oka_message* message);
void handle_ks_ca_member_create_tx_sa_rrej(uint32_t client_id, const oka_message* message);
void handle_mka_client_update_protect_frames_rrej(uint32_t client_id, const oka_message* message);
void handle_msg_timeout_ind(const oka_message* message);

} // namespace tavu::keysrv
