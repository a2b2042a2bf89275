// What clients ask for: links published, changed and withdrawn, and subscriptions.
#include <cassert>

#include "base/trace.h"
#include "tavu/oxmsi/oxmsi_server.h"
#include "tavu/port_manager/port_manager_naming.h"
#include "tavu/port_manager/port_manager_reports.h"
#include "tavu/port_manager/port_manager_roles.h"

namespace tavu {

namespace port_manager {

namespace {

// --- Links

// What added and updated links have in common.
void store_link(tavu_pm_data& port, const oxmsi_link& link) {
    port.remote_port.assign(link.remote_port);
    port.remote_mpid = link.remote_mpid;
    port.link_word_2 = link.link_word_2;
    port.du_type = link.du_type;
    port.link_status = link.link_status;
}

// The checks give the reason to reject the request, or 0, and the port that it is about.

uint32_t check_port(const char* name, tavu_pm_data*& port, oxpcsi_port_data& port_data) {
    port = find_port_or_complain(name);
    if (!port || !read_port_data(name, port_data))
        return OXMSI_REJ_UNKNOWN_PORT_NAME;
    return 0;
}

uint32_t check_link_added(const char* name, tavu_pm_data*& port, oxpcsi_port_data& port_data) {
    if (uint32_t reason = check_port(name, port, port_data))
        return reason;
    // A port that is not reserved may still have the count of an earlier reservation.
    if (port->user_data == USER_DATA_IDL && port->number_of_links == 1) {
        TRACE_ERROR("TAVU: Maximum number of link on port '%s' reached: %u, cannot handle add new link event",
                    name, port->number_of_links);
        return OXMSI_REJ_MAX_NUMBER_OF_LINKS_REACHED;
    }
    return 0;
}

uint32_t check_link_updated(const char* name, uint32_t link_id, tavu_pm_data*& port,
                            oxpcsi_port_data& port_data) {
    if (uint32_t reason = check_port(name, port, port_data))
        return reason;
    if (port->link_id != link_id) {
        TRACE_ERROR("TAVU: No link with link_id = %u exists on port '%s' cannot handle update link event",
                    link_id, name);
        return OXMSI_REJ_LINK_NOT_FOUND;
    }
    return 0;
}

uint32_t check_link_deleted(const char* name, uint32_t link_id, tavu_pm_data*& port,
                            oxpcsi_port_data& port_data) {
    port = find_port_or_complain(name);
    if (!port)
        return OXMSI_REJ_UNKNOWN_PORT_NAME;
    if (port->number_of_links == 0) {
        TRACE_ERROR("TAVU: No link exists on port '%s' cannot handle delete link event", name);
        return OXMSI_REJ_LINK_NOT_FOUND;
    }
    if (port->link_id != link_id) {
        TRACE_ERROR("TAVU: No link with link_id = %u exists on port '%s' cannot handle delete link event",
                    link_id, name);
        return OXMSI_REJ_LINK_NOT_FOUND;
    }
    if (!read_port_data(name, port_data))
        return OXMSI_REJ_UNKNOWN_PORT_NAME;
    return 0;
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

// Ends the client's subscriptions and releases every port, also those whose link another client published.
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

} // namespace port_manager

using namespace port_manager;

void tavu_pm_handle_oxmsi_idl_link_added_req(uint32_t client_id, uint32_t procedure_reference,
                                             const oxmsi_link& link, const oka_hunt_path& hunt_path) {
    TAVU_FUNCTION();
    const char* name = link.port.c_str();
    TRACE("TAVU: Received oxmsi_idl_link_added_req for port '%s'", name);
    if (!is_ready())
        return;
    tavu_pm_data* port = nullptr;
    oxpcsi_port_data port_data;
    if (uint32_t reason = check_link_added(name, port, port_data)) {
        send_oxmsi_idl_link_added_rej(client_id, procedure_reference, reason);
        return;
    }
    set_user_data_type(*port, USER_DATA_IDL);
    store_link(*port, link);
    port->link_id = link.link_id;
    assert(port->number_of_links == 0);
    port->number_of_links++;
    port->hunt_path.assign(hunt_path);
    set_procedure_pending(*port, REQUEST_LINK_ADD, client_id, procedure_reference);
    generate_ca_name(*port);
    update_state_and_role(*port, port_data);
}

void tavu_pm_handle_oxmsi_idl_link_updated_req(uint32_t client_id, uint32_t procedure_reference,
                                               const oxmsi_link& link) {
    TAVU_FUNCTION();
    const char* name = link.port.c_str();
    TRACE("TAVU: Received oxmsi_idl_link_updated_req for port '%s'", name);
    if (!is_ready())
        return;
    tavu_pm_data* port = nullptr;
    oxpcsi_port_data port_data;
    if (uint32_t reason = check_link_updated(name, link.link_id, port, port_data)) {
        send_oxmsi_idl_link_updated_rej(client_id, procedure_reference, reason);
        return;
    }
    set_user_data_type(*port, USER_DATA_IDL);
    store_link(*port, link);
    set_procedure_pending(*port, REQUEST_LINK_UPDATE, client_id, procedure_reference);
    generate_ca_name(*port);
    update_state_and_role(*port, port_data);
}

void tavu_pm_handle_oxmsi_idl_link_deleted_req(uint32_t client_id, uint32_t procedure_reference,
                                               const char* name, uint32_t link_id) {
    TAVU_FUNCTION();
    TRACE("TAVU: Received oxmsi_idl_link_deleted_req for port '%s'", name);
    if (!is_ready())
        return;
    tavu_pm_data* port = nullptr;
    oxpcsi_port_data port_data;
    if (uint32_t reason = check_link_deleted(name, link_id, port, port_data)) {
        send_oxmsi_idl_link_deleted_rej(client_id, procedure_reference, reason);
        return;
    }
    // When the port was released meanwhile, reserving it forgets its link, and there is none to remove.
    set_user_data_type(*port, USER_DATA_IDL);
    if (port->number_of_links > 0)
        port->number_of_links--;
    set_procedure_pending(*port, REQUEST_LINK_DELETE, client_id, procedure_reference);
    update_state_and_role(*port, port_data);
}

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
