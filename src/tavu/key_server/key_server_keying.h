// The keys of a CA: one SAK per announced SCI goes first to all who receive from it, then to its owner, then
// frames are protected; every step waits for all confirmations of the one before. After 180 s it begins anew.
#pragma once

#include "tavu/key_server/key_server_records.h"

namespace tavu::keysrv {

void handle_ks_ca_member_create_rx_sc_rcfm(uint32_t client_id, const oka_message* message);
void handle_ks_ca_member_create_rx_sa_rcfm(uint32_t client_id, const oka_message* message);
void handle_ks_ca_member_create_tx_sa_rcfm(uint32_t client_id, const oka_message* message);
void handle_mka_client_update_protect_frames_rcfm(uint32_t client_id, const oka_message* message);
void handle_key_refresh_timeout_ind(const oka_message* message);

} // namespace tavu::keysrv
