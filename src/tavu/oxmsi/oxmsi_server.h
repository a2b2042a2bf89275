// The MACsec service that clients find as "oxmsi". It keeps the registry of connected clients and watches
// their mailboxes, checks every request, and hands valid ones up through a table of callbacks; the answers
// come back through its send operations. It knows nothing of ports.
#pragma once

#include "base/wire.h"
#include "protocols/oxmsi_messages.h"

namespace tavu {

enum oxmsi_server_state {
    OXMSI_SERVER_STATE_UNINITIALIZED = 0,
    OXMSI_SERVER_STATE_INITIAL = 1,
    OXMSI_SERVER_STATE_STARTED = 2,
    OXMSI_SERVER_STATE_READY = 3,
};

constexpr uint32_t oxmsi_max_clients = 32;

// In this order; every entry must be there. References are valid during the call; port names are terminated.
struct oxmsi_callbacks {
    void (*handle_oxmsi_idl_link_added_req)(uint32_t client_id, uint32_t procedure_reference,
                                            const oxmsi_link& link, const oka_hunt_path& hunt_path);
    void (*handle_oxmsi_idl_link_deleted_req)(uint32_t client_id, uint32_t procedure_reference,
                                              const char* port_name, uint32_t link_id);
    void (*handle_oxmsi_idl_link_updated_req)(uint32_t client_id, uint32_t procedure_reference,
                                              const oxmsi_link& link);
    void (*handle_oxmsi_subscribe_req)(uint32_t client_id, uint32_t procedure_reference,
                                       const char* port_name);
    void (*handle_oxmsi_unsubscribe_req)(uint32_t client_id, uint32_t procedure_reference,
                                         const char* port_name);
    void (*handle_oxmsi_client_down_ind)(uint32_t client_id);
    void (*handle_oxmsi_connection_close_ind)(uint32_t client_id);
};

// `own` is the root mailbox, from which the published one is cloned. In UNINITIALIZED only.
[[nodiscard]] bool oxmsi_server_init(oka_mailbox own, const oxmsi_callbacks* callbacks);
// In INITIAL only.
[[nodiscard]] bool oxmsi_server_start();
// Opens the service under `name`: clients find it from here on. In STARTED only.
[[nodiscard]] bool oxmsi_server_publish(const char* name);
// In READY only.
[[nodiscard]] bool oxmsi_server_unpublish();
// Forgets every client, without a callback. In STARTED or READY.
[[nodiscard]] bool oxmsi_server_stop();
// True when the message number is one of the service's requests. In STARTED or READY.
[[nodiscard]] bool oxmsi_dispatch_message(const oka_message* message);

// Senders: false, after an error trace, outside READY and for a client id that nobody holds.
bool send_oxmsi_idl_link_added_cfm(uint32_t client_id, uint32_t procedure_reference, const char* port_name,
                                   uint32_t oper_state, uint32_t encryption_state);
bool send_oxmsi_idl_link_deleted_cfm(uint32_t client_id, uint32_t procedure_reference, const char* port_name,
                                     uint32_t oper_state, uint32_t encryption_state);
bool send_oxmsi_idl_link_updated_cfm(uint32_t client_id, uint32_t procedure_reference, const char* port_name,
                                     uint32_t oper_state, uint32_t encryption_state);
bool send_oxmsi_idl_link_added_rej(uint32_t client_id, uint32_t procedure_reference, uint32_t reason);
bool send_oxmsi_idl_link_deleted_rej(uint32_t client_id, uint32_t procedure_reference, uint32_t reason);
bool send_oxmsi_idl_link_updated_rej(uint32_t client_id, uint32_t procedure_reference, uint32_t reason);
bool send_oxmsi_subscribe_port_status_cfm(uint32_t client_id, uint32_t procedure_reference);
bool send_oxmsi_subscribe_port_status_rej(uint32_t client_id, uint32_t procedure_reference, uint32_t reason);
bool send_oxmsi_unsubscribe_port_status_cfm(uint32_t client_id, uint32_t procedure_reference);
// While the service is started but not published, an indication is skipped and reported as sent.
bool send_oxmsi_macsec_port_status_ind(uint32_t client_id, uint32_t procedure_reference,
                                       const char* port_name, uint32_t encryption_state, uint32_t oper_state);

} // namespace tavu
