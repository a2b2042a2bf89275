// The key server of the links that this unit hosts: connectivity associations (CAs), their members, and their
// keys. One SAK per announced SCI goes first to everyone who receives from it, then to its owner, then frame
// protection is switched on; every step waits for all confirmations of the one before. Keys are replaced
// every 180 s. When anything happens to one member, the keying of its whole CA ends: all members are told to
// leave, and join again.
//
// It talks to members through the MKA server alone. Traces begin with "KEYSRV: ".
#pragma once

#include "base/wire.h"

namespace tavu {

enum keysrv_global_state {
    KEYSRV_GLOBAL_STATE_UNINITIALIZED = 0,
    KEYSRV_GLOBAL_STATE_INITIAL = 1,
    KEYSRV_GLOBAL_STATE_STARTED = 2, // never entered
    KEYSRV_GLOBAL_STATE_READY = 3,
};

constexpr const char* key_server_mailbox_name = "mka-key-server";
constexpr uint32_t key_refresh_ms = 180000;
constexpr uint32_t key_server_msg_timeout_ms = 5000;
constexpr uint32_t sa_packet_number = 128;

struct key_server_callbacks {
    // Fills `key` with `key_len` random bytes; false when it cannot.
    bool (*generate_sak)(uint32_t key_len, uint8_t* key);
};

// Initialises the MKA server too. In UNINITIALIZED only.
[[nodiscard]] bool key_server_init(oka_mailbox parent, const key_server_callbacks* callbacks);
// Starts the MKA server, and with it the mailbox "mka-key-server". In INITIAL only.
[[nodiscard]] bool key_server_start();
// Deletes every CA and waiting message; the MKA server goes on. In READY only.
[[nodiscard]] bool key_server_stop();

// False when the CA exists already, memory is short, or the state is not READY.
bool key_server_add_ca(const char* name);
// Tells all members to leave, and forgets the CA with its keys. False when there is none of that name.
bool key_server_remove_ca(const char* name);

// True for the key server's timer messages.
[[nodiscard]] bool ks_dispatch_message(const oka_message* message);

} // namespace tavu
