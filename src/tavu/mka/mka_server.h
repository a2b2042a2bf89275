// The key server's end of the links to its MKA clients: a mailbox of its own, a registry of connected
// clients, version negotiation, and supervision of every client by heartbeat and of its mailbox by a monitor.
// All that concerns CAs goes up to the key server through a table of callbacks.
#pragma once

#include "base/secret_octets.h"
#include "base/wire.h"
#include "protocols/mka_messages.h"

namespace tavu {

constexpr uint32_t mka_server_max_clients = 64;

// In this order; every entry must be there. Messages are valid during the call, their sizes are checked.
struct mka_server_callbacks {
    void (*handle_connection_closed_ind)(uint32_t client_id, const oka_message* message);
    void (*handle_mka_server_peer_down_ind)(uint32_t client_id);
    void (*handle_leave_ca_req)(uint32_t client_id, const oka_message* message);
    void (*handle_leave_ca_rcfm)(uint32_t client_id, const oka_message* message);
    void (*handle_create_tx_sc_req)(uint32_t client_id, const oka_message* message);
    void (*handle_create_rx_sc_rrej)(uint32_t client_id, const oka_message* message);
    void (*handle_create_rx_sc_rcfm)(uint32_t client_id, const oka_message* message);
    void (*handle_create_tx_sa_rcfm)(uint32_t client_id, const oka_message* message);
    void (*handle_create_tx_sa_rrej)(uint32_t client_id, const oka_message* message);
    void (*handle_create_rx_sa_rcfm)(uint32_t client_id, const oka_message* message);
    void (*handle_create_rx_sa_rrej)(uint32_t client_id, const oka_message* message);
    void (*handle_update_protect_frames_rcfm)(uint32_t client_id, const oka_message* message);
    void (*handle_update_protect_frames_rrej)(uint32_t client_id, const oka_message* message);
    void (*handle_join_ca_req)(uint32_t client_id, const oka_message* message);
    void (*handle_heartbeat_timeout_ind)(uint32_t client_id);
};

// What an SA request says of a key, and the key itself.
struct mka_sa_parameters {
    uint32_t ca_parameter; // always 0
    uint32_t cipher_suite;
    uint32_t an;
    uint32_t packet_number;
    sak_name key_name;
    uint32_t sak_len; // in octets
    secret_octets<sak_len_max> sak;
};

// `server_name` is the mailbox by which clients find the server, at most 31 characters.
[[nodiscard]] bool mka_server_init(oka_mailbox parent, const char* server_name,
                                   const mka_server_callbacks* callbacks);
[[nodiscard]] bool mka_server_start();
// Deletes the mailbox and every client; no callback is made.
[[nodiscard]] bool mka_server_stop();
// True when the message number is one of the server's. Works in any state.
[[nodiscard]] bool mka_server_dispatch_message(const oka_message* message);

// Senders: false, after an error trace, outside READY and for a client id that nobody holds.
[[nodiscard]] bool mka_server_send_join_ca_cfm(uint32_t client_id, uint32_t procedure_reference,
                                               uint32_t standard);
[[nodiscard]] bool mka_server_send_join_ca_rej(uint32_t client_id, uint32_t procedure_reference,
                                               uint32_t reason);
[[nodiscard]] bool mka_server_send_leave_ca_rreq(uint32_t client_id, uint32_t procedure_reference,
                                                 const ca_name& ca);
[[nodiscard]] bool mka_server_send_leave_ca_cfm(uint32_t client_id, uint32_t procedure_reference);
[[nodiscard]] bool mka_server_send_create_tx_sc_cfm(uint32_t client_id, uint32_t procedure_reference);
[[nodiscard]] bool mka_server_send_create_tx_sc_rej(uint32_t client_id, uint32_t procedure_reference,
                                                    uint32_t reason);
[[nodiscard]] bool mka_server_send_create_rx_sc_req(uint32_t client_id, uint32_t procedure_reference,
                                                    const ca_name& ca, const sci& peer);
[[nodiscard]] bool mka_server_send_create_tx_sa_rreq(uint32_t client_id, uint32_t procedure_reference,
                                                     const ca_name& ca, const sci& own,
                                                     const mka_sa_parameters& parameters);
[[nodiscard]] bool mka_server_send_create_rx_sa_rreq(uint32_t client_id, uint32_t procedure_reference,
                                                     const ca_name& ca, const sci& peer,
                                                     const mka_sa_parameters& parameters);
[[nodiscard]] bool mka_server_send_update_protect_frames_rreq(uint32_t client_id,
                                                              uint32_t procedure_reference, const ca_name& ca,
                                                              bool protect_frames);

} // namespace tavu
