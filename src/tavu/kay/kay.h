// The key agreement entities (KaY, IEEE 802.1X-2020, 9), one per port. A KaY carries out the port manager's
// decision, unauthenticated or secured in a CA: it joins the CA through an MKA client, keeps in the port's
// SecY the channels and associations that the key server asks for, retires old receive keys, and derives and
// reports the three values that the rest of the system sees: port valid, controlled port operational state,
// encryption state. It retries nothing: a KaY that failed waits for the next secured connect.
#pragma once

#include "base/wire.h"

namespace tavu {

enum macsec_role : uint32_t {
    MACSEC_ROLE_UNAUTHENTICATED = 0,
    MACSEC_ROLE_SECURED = 1,
};

enum macsec_encryption_state : uint32_t {
    MACSEC_ENCRYPTION_DISABLED = 0,
    MACSEC_ENCRYPTION_ENABLED = 1,
};

enum kay_cp_oper_state : uint32_t {
    KAY_CP_OPER_DISABLED = 0,
    KAY_CP_OPER_ENABLED = 1,
};

constexpr uint32_t kay_sa_disposal_ms = 8000;
constexpr uint32_t kay_max_rx_scs = 4;
constexpr uint32_t kay_max_rx_sas = 4; // of one receive channel

// How the SecY of a secured port is configured.
struct kay_configuration_options {
    uint32_t mka_port_speed; // the port's line rate
    bool replay_protection;
    uint32_t replay_window; // in frames
    sci identifier;         // the port's own, used for its transmit channel
    bool use_es;
    bool use_scb;
    bool always_use_sci;
    uint32_t validate_frames; // oxhal_macsec_validate_frames
};

struct kay_state_change_ind {
    bool error; // the KaY has failed
    bool port_valid;
    kay_cp_oper_state oper_state;
    macsec_encryption_state encryption_state;
};

// Called from inside the handling of the message that made the change. The name is the KaY's.
struct kay_callbacks {
    void (*handle_kay_state_change_ind)(const char* port_name, const kay_state_change_ind& indication);
};

// Initialises the MKA client and the MACsec block of the hardware. In UNINITIALIZED only.
[[nodiscard]] bool kay_init(oka_mailbox parent, const kay_callbacks* callbacks);
// Starts the MKA client. In INITIALIZED only.
[[nodiscard]] bool kay_start();
// Stops the MKA client and deletes every KaY, its channels and associations. In READY only.
[[nodiscard]] bool kay_stop();

// A KaY for the port, in the unauthenticated role. Makes no report. False when it exists, the port has no
// hardware port, memory is short or the SecY does not answer. In READY, like all below.
[[nodiscard]] bool kay_create_instance(const char* port_name);

// False only for an unknown port or in the wrong state, and then `indication` is not filled.
[[nodiscard]] bool kay_connect_unauthenticated(const char* port_name, kay_state_change_ind& indication);
// False only for an unknown port or in the wrong state: the outcome comes through the callback, a failure
// perhaps before this returns. A KaY that is secured already stays as it is.
[[nodiscard]] bool kay_connect_secured(const char* port_name, const char* ca, const char* key_server_name,
                                       const kay_configuration_options& options);

// What the KaY of that port would report now; false for an unknown port.
[[nodiscard]] bool kay_get_state(const char* port_name, kay_state_change_ind& indication);

// True for the KaY's disposal timer.
[[nodiscard]] bool kay_dispatch_message(const oka_message* message);

const char* kay_macsec_role_to_str(macsec_role role);
const char* macsec_encryption_state_to_str(macsec_encryption_state state);
const char* cp_oper_state_to_str(kay_cp_oper_state state);

} // namespace tavu
