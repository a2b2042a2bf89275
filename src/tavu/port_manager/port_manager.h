// One record per IDL port. From the port's state, the link that a client published for it and the outcome
// that its KaY reports, the port manager decides which role the port takes and drives the KaY there; it names
// the CA, decides which end of the link hosts the key server, retries after failures, answers link requests
// when the port has settled, and tells subscribers when the status changed.
#pragma once

#include "base/wire.h"
#include "protocols/oxmsi_messages.h"
#include "tavu/oxpcsi/oxpcsi_helper.h"

namespace tavu {

enum tavu_pm_global_state {
    TAVU_PM_GLOBAL_STATE_UNINITIALIZED = 0,
    TAVU_PM_GLOBAL_STATE_INITIALIZED = 1,
    TAVU_PM_GLOBAL_STATE_READY = 2,
};

enum tavu_pm_state {
    TAVU_PM_STATE_INITIAL = 0,
    TAVU_PM_STATE_UNAUTHENTICATED = 1,
    TAVU_PM_STATE_CA_JOINING = 2,
    TAVU_PM_STATE_CA_JOINED = 3,
    TAVU_PM_STATE_FAILED = 4,
};

constexpr uint32_t tavu_pm_retry_ms = 1000;
constexpr uint32_t tavu_pm_max_subscribers = 32; // over all clients and ports

// Initialises the KaY module and reads the own MP id from the environment variable MPID; false, after an
// error trace, when either fails. In UNINITIALIZED only.
[[nodiscard]] bool tavu_pm_init(oka_mailbox root);
// In INITIALIZED only.
[[nodiscard]] bool tavu_pm_start();
// Takes every port back to the unauthenticated role, forgets ports and subscribers, stops the KaYs. In READY
// only; ends in INITIALIZED.
[[nodiscard]] bool tavu_pm_stop();
// A record and a KaY for the port. In READY only.
[[nodiscard]] bool tavu_pm_create_instance(const char* port_name);
// True for the port manager's retry timer.
[[nodiscard]] bool tavu_pm_dispatch_message(const oka_message* message);

// The handlers below do nothing, after an error trace, outside READY.
void tavu_pm_handle_oxpcsi_port_state_change(const oxpcsi_port_data& port_data);
void tavu_pm_handle_oxmsi_idl_link_added_req(uint32_t client_id, uint32_t procedure_reference,
                                             const oxmsi_link& link, const oka_hunt_path& hunt_path);
void tavu_pm_handle_oxmsi_idl_link_deleted_req(uint32_t client_id, uint32_t procedure_reference,
                                               const char* port_name, uint32_t link_id);
void tavu_pm_handle_oxmsi_idl_link_updated_req(uint32_t client_id, uint32_t procedure_reference,
                                               const oxmsi_link& link);
void tavu_pm_handle_oxmsi_subscribe_req(uint32_t client_id, uint32_t procedure_reference,
                                        const char* port_name);
void tavu_pm_handle_oxmsi_unsubscribe_req(uint32_t client_id, uint32_t procedure_reference,
                                          const char* port_name);
void tavu_pm_handle_oxmsi_client_down_ind(uint32_t client_id);
void tavu_pm_handle_oxmsi_connection_close_ind(uint32_t client_id);

tavu_pm_global_state get_tavu_pm_global_state();
// False, after an error trace, for an unknown port.
[[nodiscard]] bool get_tavu_pm_state(const char* port_name, tavu_pm_state& state);

} // namespace tavu
