#include "tavu/port_manager/port_manager_reports.h"

#include "base/trace.h"
#include "tavu/oxmsi/oxmsi_server.h"

namespace tavu::port_manager {

namespace {

uint32_t portvalid_to_oxmsi_oper_state(bool port_valid) {
    TAVU_FUNCTION();
    return port_valid ? OXMSI_PORT_OPER_STATE_ENABLED : OXMSI_PORT_OPER_STATE_DISABLED;
}

uint32_t encryption_state_to_oxmsi_encryption_state(macsec_encryption_state state) {
    TAVU_FUNCTION();
    switch (state) {
    case MACSEC_ENCRYPTION_DISABLED:
        return OXMSI_PORT_ENCRYPTION_STATE_DISABLED;
    case MACSEC_ENCRYPTION_ENABLED:
        return OXMSI_PORT_ENCRYPTION_STATE_ENABLED;
    }
    TRACE_ERROR("TAVU: Unhandled value: %u", static_cast<unsigned>(state));
    return OXMSI_PORT_ENCRYPTION_STATE_DISABLED;
}

// The confirm of a request type, or null after an error trace.
auto confirm_of(request_type request, const char* port) -> decltype(&send_oxmsi_idl_link_added_cfm) {
    switch (request) {
    case REQUEST_LINK_ADD:
        return send_oxmsi_idl_link_added_cfm;
    case REQUEST_LINK_UPDATE:
        return send_oxmsi_idl_link_updated_cfm;
    case REQUEST_LINK_DELETE:
        return send_oxmsi_idl_link_deleted_cfm;
    }
    TRACE_ERROR("TAVU: Unhandled request type: %u for procedure ending point on port '%s'",
                static_cast<unsigned>(request), port);
    return nullptr;
}

void update_last_sent_state(subscriber_record& subscriber, const tavu_pm_data& port) {
    TAVU_FUNCTION();
    subscriber.status_sent = true;
    subscriber.last_sent_port_valid = port.port_valid;
    subscriber.last_sent_encryption_state = port.encryption_state;
}

} // namespace

void set_procedure_pending(tavu_pm_data& port, request_type request, uint32_t client_id,
                           uint32_t procedure_reference) {
    TAVU_FUNCTION();
    const char* name = port.port.c_str();
    if (port.user_data != USER_DATA_IDL) {
        TRACE_ERROR("TAVU: Invalid reservation value for port '%s': actual='%s', expected='%s'", name,
                    user_data_type_to_str(port.user_data), user_data_type_to_str(USER_DATA_IDL));
        return;
    }
    TRACE("TAVU: Setting procedure pending on port '%s': request_type='%s', client id=%u, proc_ref=%u", name,
          request_type_to_str(request), client_id, procedure_reference);
    if (port.procedure_pending) {
        TRACE("TAVU: Port '%s' already has a pending procedure, send response to old request: "
              "request_type='%s', client id=%u, proc_ref=%u",
              name, request_type_to_str(request), client_id, procedure_reference);
        fire_oxmsi_pending_procedure_response(port);
    }
    port.procedure_pending = true;
    port.pending_request = request;
    port.pending_client_id = client_id;
    port.pending_procedure_reference = procedure_reference;
}

void fire_oxmsi_pending_procedure_response(tavu_pm_data& port) {
    TAVU_FUNCTION();
    const char* name = port.port.c_str();
    TRACE("TAVU: Procedure ending point for port '%s'", name);
    if (port.user_data == USER_DATA_NONE) {
        TRACE("TAVU: Port '%s' is not reserved", name);
        return;
    }
    if (port.user_data != USER_DATA_IDL) {
        TRACE_ERROR("TAVU: Unhandled procedure ending point on port '%s'", name);
        return;
    }
    if (!port.procedure_pending) {
        TRACE("TAVU: Procedure ending point for port '%s', but no pending procedure exists", name);
        return;
    }
    auto* send_cfm = confirm_of(port.pending_request, name);
    if (!send_cfm)
        return;
    send_cfm(port.pending_client_id, port.pending_procedure_reference, name,
             portvalid_to_oxmsi_oper_state(port.port_valid),
             encryption_state_to_oxmsi_encryption_state(port.encryption_state));
    port.procedure_pending = false;
}

void fire_oxmsi_macsec_port_status_ind_to_client(subscriber_record& subscriber, const tavu_pm_data& port) {
    TAVU_FUNCTION();
    send_oxmsi_macsec_port_status_ind(subscriber.client_id, subscriber.procedure_reference,
                                      subscriber.port.c_str(),
                                      encryption_state_to_oxmsi_encryption_state(port.encryption_state),
                                      portvalid_to_oxmsi_oper_state(port.port_valid));
    update_last_sent_state(subscriber, port);
}

void fire_oxmsi_macsec_port_status_ind(const tavu_pm_data& port) {
    TAVU_FUNCTION();
    for (subscriber_record& subscriber : self.subscribers) {
        if (!(subscriber.port == port.port))
            continue;
        if (!subscriber.status_sent || subscriber.last_sent_port_valid != port.port_valid ||
            subscriber.last_sent_encryption_state != port.encryption_state)
            fire_oxmsi_macsec_port_status_ind_to_client(subscriber, port);
    }
}

} // namespace tavu::port_manager
