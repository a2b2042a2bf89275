// The KaY's end of the link to a key server. One client serves one KaY: it finds the key server's mailbox by
// name, watches it, connects, joins the CA, keeps the heartbeat, and then relays the key server's requests to
// the KaY and the KaY's answers back. It knows nothing of SecYs: it checks sizes, states, references and the
// CA's name. When anything goes wrong on the link it leaves the CA by itself and tells the KaY; it retries
// nothing.
#pragma once

#include "base/wire.h"
#include "protocols/mka_messages.h"

namespace tavu {

constexpr uint32_t mka_client_max_clients = 32;

// What the client tells its KaY, in the order of the table below. The message is valid during the call and as
// it came, all its integers big-endian. A callback may delete the client that made it.
struct mka_client_callbacks {
    void (*handle_mka_client_create_tx_sc_cfm)(uint32_t client_id, const oka_message* message);
    void (*handle_mka_client_create_tx_sc_rej)(uint32_t client_id, const oka_message* message);
    void (*handle_mka_client_create_rx_sc_req)(uint32_t client_id, const oka_message* message);
    void (*handle_mka_client_create_tx_sa_req)(uint32_t client_id, const oka_message* message);
    void (*handle_mka_client_create_rx_sa_req)(uint32_t client_id, const oka_message* message);
    void (*handle_mka_client_update_protect_frames_req)(uint32_t client_id, const oka_message* message);
    void (*handle_mka_client_ca_joined_ind)(uint32_t client_id, const oka_message* message);
    void (*handle_mka_client_ca_left_ind)(uint32_t client_id);
    void (*handle_mka_connection_close_cfm)(uint32_t client_id, const oka_message* message);
};

// The operations below refuse, after an error trace, in any but their module state: init in UNINITIALIZED,
// start in INITIALIZED, all others in READY.

// Copies the table, of which every entry must be there. Client mailboxes are cloned from `parent`.
[[nodiscard]] bool mka_client_init(oka_mailbox parent, const mka_client_callbacks* callbacks);
[[nodiscard]] bool mka_client_start();
// Deletes every client.
[[nodiscard]] bool mka_client_stop();

// The new client's id, the lowest free one from 1; 0 when there are 32 or memory is short.
[[nodiscard]] uint32_t mka_client_create();
// The key server is not told and no callback is made. False for an unknown id.
bool mka_client_delete(uint32_t client_id);

// Starts on the way to the CA. `key_server_name` is what oka_locate_async takes. `port_speed` is the port's
// line rate, handed on as it is. `capabilities` may be null: a port whose SecY has no MACsec; its type and
// length need not be filled. The outcome comes through the CA joined or CA left callback.
[[nodiscard]] bool mka_client_join_ca(uint32_t client_id, const char* ca, const char* key_server_name,
                                      uint32_t port_speed, const mka_802_1ae_2006_capabilities* capabilities);

// True when the message number is one of the client's.
[[nodiscard]] bool mka_client_dispatch_message(const oka_message* message);

// Senders: false for an unknown client. Replies carry the procedure reference of the request they answer.
[[nodiscard]] bool mka_client_send_create_tx_sc_req(uint32_t client_id, uint32_t procedure_reference,
                                                    const sci& identifier);
[[nodiscard]] bool mka_client_send_create_rx_sc_rcfm(uint32_t client_id, uint32_t procedure_reference);
[[nodiscard]] bool mka_client_send_create_rx_sc_rrej(uint32_t client_id, uint32_t procedure_reference,
                                                     uint32_t reason);
[[nodiscard]] bool mka_client_send_create_tx_sa_rcfm(uint32_t client_id, uint32_t procedure_reference);
[[nodiscard]] bool mka_client_send_create_tx_sa_rrej(uint32_t client_id, uint32_t procedure_reference,
                                                     uint32_t reason);
[[nodiscard]] bool mka_client_send_create_rx_sa_rcfm(uint32_t client_id, uint32_t procedure_reference);
[[nodiscard]] bool mka_client_send_create_rx_sa_rrej(uint32_t client_id, uint32_t procedure_reference,
                                                     uint32_t reason);
[[nodiscard]] bool mka_client_send_update_protect_frames_rcfm(uint32_t client_id,
                                                              uint32_t procedure_reference);
// Carries MKA_REJ_INTERNAL_ERROR.
[[nodiscard]] bool mka_client_send_update_protect_frames_rrej(uint32_t client_id,
                                                              uint32_t procedure_reference);
[[nodiscard]] bool mka_client_send_leave_ca_req(uint32_t client_id, uint32_t procedure_reference);
[[nodiscard]] bool mka_client_send_leave_ca_rcfm(uint32_t client_id, uint32_t procedure_reference);
[[nodiscard]] bool mka_client_send_connection_close_req(uint32_t client_id, uint32_t procedure_reference);

} // namespace tavu
