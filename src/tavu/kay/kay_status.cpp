#include "tavu/kay/kay_status.h"

#include <cassert>

#include "tavu/common/tavu_utils.h"
#include "tavu/kay/kay_channels.h"
#include "tavu/kay/kay_secy.h"
#include "tavu/mka/mka_client.h"

namespace tavu::kay_internal {

namespace {

// True for a change that is worth a report.
bool update_state(kay_record& kay, kay_state state) {
    TAVU_FUNCTION();
    if (kay.state == state) {
        TRACE("TAVU: No change in state '%s' on port '%s'", state_to_str(state), kay.port.c_str());
        return false;
    }
    bool reported = kay.state == KAY_STATE_FAILED || state == KAY_STATE_FAILED;
    change_state(kay, state);
    return reported;
}

bool update_port_valid(kay_record& kay) {
    TAVU_FUNCTION();
    bool valid = (kay.role == MACSEC_ROLE_UNAUTHENTICATED && kay.state == KAY_STATE_UNAUTHENTICATED) ||
                 (kay.role == MACSEC_ROLE_SECURED && kay.state == KAY_STATE_CA_JOINED);
    TRACE("TAVU: Target role = '%s', current state = '%s' on port '%s' -> portValid = '%s'",
          kay_macsec_role_to_str(kay.role), state_to_str(kay.state), kay.port.c_str(), bool_to_str(valid));
    if (kay.port_valid == valid) {
        TRACE("TAVU: No change in portValid value '%s' on port '%s'", bool_to_str(valid), kay.port.c_str());
        return false;
    }
    change_port_valid(kay, valid);
    return true;
}

unsigned get_number_of_active_tx_sa(kay_record& kay) {
    unsigned active = 0;
    for (tx_sc& sc : kay.tx_scs) {
        for (tx_sa& sa : sc.associations)
            active += kay_secy_tx_sa_in_use(kay, sc, sa);
    }
    return active;
}

unsigned get_number_of_active_rx_sa(kay_record& kay) {
    unsigned active = 0;
    for (rx_sc& sc : kay.rx_scs) {
        for (rx_sa& sa : sc.associations)
            active += kay_secy_rx_sa_in_use(kay, sc, sa);
    }
    return active;
}

// In CA_JOINED. A port that is to protect frames is operational once it can send and receive protected ones.
kay_cp_oper_state get_new_cp_oper_state(kay_record& kay) {
    TAVU_FUNCTION();
    const char* port = kay.port.c_str();
    if (!kay_secy_is_macsec_supported(kay)) {
        TRACE("TAVU: Port '%s' does not support MACsec", port);
        return KAY_CP_OPER_ENABLED;
    }
    if (!kay.protect_frames_initialised) {
        TRACE("TAVU: Port '%s' protectFrames is not initialized", port);
        return KAY_CP_OPER_DISABLED;
    }
    if (!kay.protect_frames) {
        TRACE("TAVU: Port '%s' has protectFrames '%s'", port, bool_to_str(kay.protect_frames));
        return KAY_CP_OPER_ENABLED;
    }
    unsigned active = get_number_of_active_tx_sa(kay);
    if (active == 0) {
        TRACE("TAVU: No active TX SA exists on port '%s'", port);
        return KAY_CP_OPER_DISABLED;
    }
    TRACE("TAVU: Number of active TX SA on port '%s' = %u", port, active);
    active = get_number_of_active_rx_sa(kay);
    if (active == 0) {
        TRACE("TAVU: No active RX SA exists on port '%s'", port);
        return KAY_CP_OPER_DISABLED;
    }
    TRACE("TAVU: Number of active RX SA on port '%s' = %u", port, active);
    return KAY_CP_OPER_ENABLED;
}

bool update_cp_oper_state(kay_record& kay) {
    TAVU_FUNCTION();
    kay_cp_oper_state state = KAY_CP_OPER_DISABLED;
    if (kay.state == KAY_STATE_UNAUTHENTICATED)
        state = KAY_CP_OPER_ENABLED;
    else if (kay.state == KAY_STATE_CA_JOINED)
        state = get_new_cp_oper_state(kay);
    TRACE("TAVU: Current state = '%s' on port '%s' -> controlled port operational state = '%s'",
          state_to_str(kay.state), kay.port.c_str(), cp_oper_state_to_str(state));
    if (kay.cp_oper_state == state) {
        TRACE("TAVU: No change in controlled port operational state '%s' on port '%s'",
              cp_oper_state_to_str(state), kay.port.c_str());
        return false;
    }
    change_cp_oper_state(kay, state);
    return true;
}

// In CA_JOINED.
macsec_encryption_state get_new_encryption_state(const kay_record& kay) {
    TAVU_FUNCTION();
    bool encrypts = kay_secy_is_macsec_supported(kay) && kay.protect_frames && kay.cipher != MKA_CIPHER_NULL;
    macsec_encryption_state state = encrypts ? MACSEC_ENCRYPTION_ENABLED : MACSEC_ENCRYPTION_DISABLED;
    TRACE("TAVU: ProtectFrames on port '%s' is '%s' and cipher is '%s' -> encryption state = '%s'",
          kay.port.c_str(), bool_to_str(kay.protect_frames), cipher_to_str(kay.cipher),
          macsec_encryption_state_to_str(state));
    return state;
}

bool update_encryption_state(kay_record& kay) {
    TAVU_FUNCTION();
    macsec_encryption_state state = MACSEC_ENCRYPTION_DISABLED;
    if (kay.state == KAY_STATE_CA_JOINED)
        state = get_new_encryption_state(kay);
    else
        TRACE("TAVU: Current state = '%s' on port '%s' -> encryption state = '%s'", state_to_str(kay.state),
              kay.port.c_str(), macsec_encryption_state_to_str(state));
    if (kay.encryption_state == state) {
        TRACE("TAVU: No change in encryption state '%s' on port '%s'", macsec_encryption_state_to_str(state),
              kay.port.c_str());
        return false;
    }
    change_encryption_state(kay, state);
    return true;
}

void delete_mka_client(kay_record& kay) {
    TAVU_FUNCTION();
    if (kay.mka_client_id == 0)
        return;
    ignore_result(mka_client_delete(kay.mka_client_id));
    kay.mka_client_id = 0;
}

void fire_handle_kay_state_change_ind(const kay_record& kay) {
    TAVU_FUNCTION();
    kay_state_change_ind indication;
    fill_kay_state_change_ind(kay, indication);
    TRACE("TAVU: Firing handle_kay_state_change_ind port = '%s', error = '%s', port_valid = '%s', "
          "cp_oper_state = '%s'",
          kay.port.c_str(), bool_to_str(indication.error), bool_to_str(indication.port_valid),
          cp_oper_state_to_str(indication.oper_state));
    self.callbacks.handle_kay_state_change_ind(kay.port.c_str(), indication);
}

} // namespace

void update_kay_data(kay_record& kay, kay_state state) {
    TAVU_FUNCTION();
    kay_state old_state = kay.state;
    bool state_changed = update_state(kay, state);
    assert((kay.role == MACSEC_ROLE_SECURED) ==
           (state == KAY_STATE_CA_JOIN_PENDING || state == KAY_STATE_CA_JOINED));
    bool port_valid_changed = update_port_valid(kay);
    bool cp_oper_state_changed = update_cp_oper_state(kay);
    bool encryption_state_changed = update_encryption_state(kay);
    bool changed = state_changed || port_valid_changed || cp_oper_state_changed || encryption_state_changed;
    if (old_state != KAY_STATE_CREATED && state != KAY_STATE_UNAUTHENTICATED && changed)
        fire_handle_kay_state_change_ind(kay);
}

void fill_kay_state_change_ind(const kay_record& kay, kay_state_change_ind& indication) {
    TAVU_FUNCTION();
    indication = {
        .error = kay.state == KAY_STATE_FAILED,
        .port_valid = kay.port_valid,
        .oper_state = kay.cp_oper_state,
        .encryption_state = kay.encryption_state,
    };
}

bool clear_kay_data(kay_record& kay) {
    TAVU_FUNCTION();
    TRACE("TAVU: Clearing all KaY data for port '%s'", kay.port.c_str());
    bool transmit_deleted = delete_all_tx_sc(kay);
    bool receive_deleted = delete_all_rx_sc(kay);
    assert(kay.tx_scs.empty() && kay.rx_scs.empty());
    bool disabled = disable_macsec(kay);
    delete_mka_client(kay);
    return transmit_deleted && receive_deleted && disabled;
}

void handle_failure(kay_record& kay) {
    TAVU_FUNCTION();
    change_role(kay, MACSEC_ROLE_UNAUTHENTICATED);
    ignore_result(clear_kay_data(kay));
    update_kay_data(kay, KAY_STATE_FAILED);
}

} // namespace tavu::kay_internal
