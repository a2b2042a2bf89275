// What clients hear of their ports: the confirm that ends a link request once its port has settled, and the
// status indications of those who subscribed.
#include "base/trace.h"
#include "tavu/oxmsi/oxmsi_server.h"
#include "tavu/port_manager/port_manager_records.h"

namespace tavu {

namespace port_manager {

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

// --- Subscribers

unsigned get_number_of_subscribers() {
    TAVU_FUNCTION();
    unsigned count = self.subscribers.size();
    TRACE("TAVU: Total number of subscribers=%u, maximum number of subscribers=%u", count,
          tavu_pm_max_subscribers);
    return count;
}

subscriber_record* find_subscriber(uint32_t client_id, const char* port) {
    TAVU_FUNCTION();
    subscriber_record* subscriber = self.subscribers.find([&](const subscriber_record& candidate) {
        return candidate.client_id == client_id && candidate.port == port;
    });
    if (subscriber)
        TRACE("TAVU: Subscriber for port '%s', client id=%u found", port, client_id);
    else
        TRACE("TAVU: Subscriber for port '%s', client id=%u not found", port, client_id);
    return subscriber;
}

subscriber_record* add_subscriber(uint32_t client_id, const char* port, uint32_t procedure_reference) {
    TAVU_FUNCTION();
    subscriber_record* subscriber = self.subscribers.add();
    if (!subscriber)
        return nullptr;
    subscriber->client_id = client_id;
    subscriber->port.assign(port);
    subscriber->procedure_reference = procedure_reference;
    TRACE("TAVU: client id=%u subscribed for port '%s'", client_id, port);
    return subscriber;
}

bool delete_first_subscription_of(uint32_t client_id) {
    TAVU_FUNCTION();
    subscriber_record* subscriber = self.subscribers.find(
        [=](const subscriber_record& candidate) { return candidate.client_id == client_id; });
    if (!subscriber)
        return false;
    delete_subscriber(*subscriber);
    return true;
}

void delete_subscriptions_of(uint32_t client_id) {
    TAVU_FUNCTION();
    while (delete_first_subscription_of(client_id)) {
    }
}

void update_last_sent_state(subscriber_record& subscriber, const tavu_pm_data& port) {
    TAVU_FUNCTION();
    subscriber.status_sent = true;
    subscriber.last_sent_port_valid = port.port_valid;
    subscriber.last_sent_encryption_state = port.encryption_state;
}

void fire_oxmsi_macsec_port_status_ind_to_client(subscriber_record& subscriber, const tavu_pm_data& port) {
    TAVU_FUNCTION();
    send_oxmsi_macsec_port_status_ind(subscriber.client_id, subscriber.procedure_reference,
                                      subscriber.port.c_str(),
                                      encryption_state_to_oxmsi_encryption_state(port.encryption_state),
                                      portvalid_to_oxmsi_oper_state(port.port_valid));
    update_last_sent_state(subscriber, port);
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

// Why a subscription is refused, or 0; and the port that it is for.
uint32_t check_subscription(uint32_t client_id, const char* name, tavu_pm_data*& port) {
    port = find_port_or_complain(name);
    if (!port)
        return OXMSI_REJ_UNKNOWN_PORT_NAME;
    if (find_subscriber(client_id, name)) {
        TRACE_ERROR("TAVU: client id=%u already subscribed for port '%s'", client_id, name);
        return OXMSI_REJ_SUBSCRIPTION_ALREADY_EXIST;
    }
    if (get_number_of_subscribers() >= tavu_pm_max_subscribers) {
        TRACE_ERROR(
            "TAVU: Maximum number of subscribers (%u) reached, client id=%u cannot subscribe for port "
            "'%s'",
            tavu_pm_max_subscribers, client_id, name);
        return OXMSI_REJ_MAX_NUMBER_OF_SUBSCRIBERS_REACHED;
    }
    return 0;
}

// Ends what the client subscribed to and releases every port, whichever client published its link.
void forget_client(uint32_t client_id) {
    delete_subscriptions_of(client_id);
    for (tavu_pm_data& port : self.ports) {
        oxpcsi_port_data port_data;
        if (!read_port_data(port.port.c_str(), port_data))
            continue;
        set_user_data_type(port, USER_DATA_NONE);
        update_state_and_role(port, port_data);
    }
}

} // namespace

void delete_subscriber(subscriber_record& subscriber) {
    TAVU_FUNCTION();
    TRACE("TAVU: Deleting subscriber client id=%u for port '%s'", subscriber.client_id,
          subscriber.port.c_str());
    self.subscribers.remove(subscriber);
}

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

} // namespace port_manager

using namespace port_manager;

void tavu_pm_handle_oxmsi_subscribe_req(uint32_t client_id, uint32_t procedure_reference, const char* name) {
    TAVU_FUNCTION();
    TRACE("TAVU: Received oxmsi_subscribe_req for port '%s'", name);
    if (!is_ready())
        return;
    tavu_pm_data* port = nullptr;
    uint32_t reason = check_subscription(client_id, name, port);
    subscriber_record* subscriber = nullptr;
    if (reason == 0) {
        subscriber = add_subscriber(client_id, name, procedure_reference);
        if (!subscriber)
            reason = OXMSI_REJ_INTERNAL_ERROR;
    }
    if (reason != 0) {
        send_oxmsi_subscribe_port_status_rej(client_id, procedure_reference, reason);
        return;
    }
    send_oxmsi_subscribe_port_status_cfm(client_id, procedure_reference);
    fire_oxmsi_macsec_port_status_ind_to_client(*subscriber, *port);
}

void tavu_pm_handle_oxmsi_unsubscribe_req(uint32_t client_id, uint32_t procedure_reference,
                                          const char* name) {
    TAVU_FUNCTION();
    TRACE("TAVU: Received oxmsi_unsubscribe_req for port '%s'", name);
    if (!is_ready())
        return;
    if (!find_port_or_complain(name)) {
        // The protocol has no reject of its own for this.
        send_oxmsi_subscribe_port_status_rej(client_id, procedure_reference, OXMSI_REJ_UNKNOWN_PORT_NAME);
        return;
    }
    if (subscriber_record* subscriber = find_subscriber(client_id, name))
        delete_subscriber(*subscriber);
    else
        TRACE_ERROR("TAVU: client id=%u is not subscribed for port '%s'", client_id, name);
    send_oxmsi_unsubscribe_port_status_cfm(client_id, procedure_reference);
}

void tavu_pm_handle_oxmsi_client_down_ind(uint32_t client_id) {
    TAVU_FUNCTION();
    TRACE("TAVU: Received oxmsi_client_down_ind for client %u", client_id);
    if (is_ready())
        forget_client(client_id);
}

void tavu_pm_handle_oxmsi_connection_close_ind(uint32_t client_id) {
    TAVU_FUNCTION();
    TRACE("TAVU: Received handle_oxmsi_connection_close_ind for client %u", client_id);
    if (is_ready())
        forget_client(client_id);
}

} // namespace tavu
