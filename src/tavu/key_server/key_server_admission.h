// How a client becomes a member of a CA, and its transmit channel is made known to the others.
#pragma once

#include "tavu/key_server/key_server_records.h"

namespace tavu::keysrv {

void handle_ks_ca_member_join_ca_req(uint32_t client_id, const oka_message* message);
void handle_ks_ca_member_create_tx_sc_req(uint32_t client_id, const oka_message* message);

} // namespace tavu::keysrv
