#include "tavu/port_manager/port_manager.h"

#include "base/dispatch.h"
#include "base/ignore_result.h"
#include "base/trace.h"
#include "protocols/message_numbers.h"
#include "tavu/port_manager/port_manager_naming.h"
#include "tavu/port_manager/port_manager_roles.h"

namespace tavu {

using namespace port_manager;

namespace {

// A new record, or null after an error trace.
tavu_pm_data* create_tavu_pm_data_element(const char* name) {
    TAVU_FUNCTION();
    if (find_tavu_pm_data(name)) {
        TRACE_ERROR("TAVU: Port with name '%s' already exists", name);
        return nullptr;
    }
    tavu_pm_data* port = self.ports.add();
    if (port)
        port->port.assign(name);
    return port;
}

void clear_data() {
    TAVU_FUNCTION();
    for (subscriber_record& subscriber : self.subscribers)
        delete_subscriber(subscriber);
    for (tavu_pm_data& port : self.ports) {
        TRACE_DETAIL("TAVU: Removing port '%s'", port.port.c_str());
        stop_retry_timer(port);
        self.ports.remove(port);
    }
}

} // namespace

bool tavu_pm_init(oka_mailbox root) {
    TAVU_FUNCTION();
    if (!is_in_state(self.global_state, TAVU_PM_GLOBAL_STATE_UNINITIALIZED, global_state_to_str))
        return false;
    self.ports.clear();
    self.subscribers.clear();
    const kay_callbacks callbacks = {handle_kay_state_change_ind};
    if (!kay_init(root, &callbacks)) {
        TRACE_ERROR("TAVU: Could not initialize KaY");
        return false;
    }
    if (!set_own_mp_id()) {
        TRACE_ERROR("TAVU: Set own mp id failed");
        return false;
    }
    change_global_state(TAVU_PM_GLOBAL_STATE_INITIALIZED);
    return true;
}

bool tavu_pm_start() {
    TAVU_FUNCTION();
    if (!is_in_state(self.global_state, TAVU_PM_GLOBAL_STATE_INITIALIZED, global_state_to_str))
        return false;
    if (!kay_start()) {
        TRACE_ERROR("TAVU: Could not start KaY");
        return false;
    }
    change_global_state(TAVU_PM_GLOBAL_STATE_READY);
    return true;
}

bool tavu_pm_stop() {
    TAVU_FUNCTION();
    if (!is_ready())
        return false;
    set_port_roles(MACSEC_ROLE_UNAUTHENTICATED);
    clear_data();
    // The KaYs trace what they could not remove. This module stops in any case.
    ignore_result(kay_stop());
    change_global_state(TAVU_PM_GLOBAL_STATE_INITIALIZED);
    return true;
}

bool tavu_pm_create_instance(const char* name) {
    TAVU_FUNCTION();
    if (!is_ready())
        return false;
    tavu_pm_data* port = create_tavu_pm_data_element(name);
    if (!port)
        return false;
    if (!kay_create_instance(port->port.c_str())) {
        self.ports.remove(*port);
        return false;
    }
    TRACE("TAVU: TAVU PM is created for port '%s'", port->port.c_str());
    return set_port_role(*port, MACSEC_ROLE_UNAUTHENTICATED);
}

bool tavu_pm_dispatch_message(const oka_message* message) {
    TAVU_FUNCTION();
    if (!is_ready())
        return false;
    constexpr dispatch_row table[] = {
        {TAVU_PM_RETRY_TIMEOUT_IND, tavu_pm_handle_retry_timeout, origin::prepared},
    };
    return dispatch_by(table, message);
}

void tavu_pm_handle_oxpcsi_port_state_change(const oxpcsi_port_data& port_data) {
    TAVU_FUNCTION();
    TRACE("TAVU: Received oxpcsi_port_state_change for port '%s'", port_data.port.c_str());
    if (!is_ready())
        return;
    if (tavu_pm_data* port = find_port_or_complain(port_data.port.c_str()))
        update_state_and_role(*port, port_data);
}

tavu_pm_global_state get_tavu_pm_global_state() {
    TAVU_FUNCTION();
    return self.global_state;
}

bool get_tavu_pm_state(const char* name, tavu_pm_state& state) {
    TAVU_FUNCTION();
    const tavu_pm_data* port = find_port_or_complain(name);
    if (!port)
        return false;
    state = port->state;
    return true;
}

} // namespace tavu
