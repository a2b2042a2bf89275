// The links to the clients: who is connected, on which version, and whether they are still there.
#pragma once

#include "tavu/mka/mka_server_records.h"

namespace tavu::mka_server_internal {

// Deletes every client, with its timer and its mailbox's monitor; nobody is told.
void clear_data();

void connection_establish_req(const oka_message* message);
void handle_connection_close_req(const oka_message* message);
void handle_client_down_ind(const oka_message* message);
void handle_get_capabilities_req(const oka_message* message);
void handle_heartbeat_req(const oka_message* message);
void handle_heartbeat_rcfm(const oka_message* message);
void handle_heartbeat_timeout_ind(const oka_message* message);

} // namespace tavu::mka_server_internal
