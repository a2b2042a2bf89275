// What the key server asks of a client that has joined its CA, handed to the KaY as it came, and what the KaY
// has to say, put into messages.
#pragma once

#include "tavu/mka/mka_client_records.h"

namespace tavu::mka_client_internal {

void handle_leave_ca_cfm(const oka_message* message);
void handle_leave_ca_rreq(const oka_message* message);
void handle_create_tx_sc_cfm(const oka_message* message);
void handle_create_tx_sc_rej(const oka_message* message);
void handle_create_rx_sc_rreq(const oka_message* message);
void handle_create_tx_sa_rreq(const oka_message* message);
void handle_create_rx_sa_rreq(const oka_message* message);
void handle_update_protect_frames_rreq(const oka_message* message);

} // namespace tavu::mka_client_internal
