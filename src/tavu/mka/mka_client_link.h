// The way to the CA and back: finding and watching the key server, connecting, joining, the heartbeat, and
// leaving when any of it fails.
#pragma once

#include "tavu/mka/mka_client_records.h"

namespace tavu::mka_client_internal {

void locate_server(const client& locating, const char* key_server_name);
void disconnect(client& disconnected);
// What the client does about every failure of the link. Ends in the CA left callback.
void leave_ca(client& leaving);

void handle_server_up_ind(const oka_message* message);
void handle_peer_down_ind(const oka_message* message);
void handle_connection_establish_cfm(const oka_message* message);
void handle_connection_establish_rej(const oka_message* message);
void handle_connection_close_cfm(const oka_message* message);
void handle_get_capabilities_cfm(const oka_message* message);
void handle_get_capabilities_rej(const oka_message* message);
void handle_join_ca_cfm(const oka_message* message);
void handle_join_ca_rej(const oka_message* message);
void handle_heartbeat_cfm(const oka_message* message);
void handle_heartbeat_rreq(const oka_message* message);
void handle_heartbeat_timeout_ind(const oka_message* message);

} // namespace tavu::mka_client_internal
