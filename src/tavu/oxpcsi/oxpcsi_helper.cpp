#include "tavu/oxpcsi/oxpcsi_helper.h"

#include "base/dispatch.h"
#include "base/enum_text.h"
#include "base/record_list.h"
#include "base/trace.h"

namespace tavu {

namespace {

constexpr const char* server_mailbox_name = "oxpcsi-server";

struct {
    oxpcsi_helper_state state = OXPCSI_HELPER_STATE_UNINITIALIZED;
    oka_mailbox owner_mailbox = OKA_MAILBOX_NONE;
    oka_mailbox own_mailbox = OKA_MAILBOX_NONE;
    oka_mailbox server_mailbox = OKA_MAILBOX_NONE;
    oka_monitor_ref server_monitor = 0;
    uint32_t connection_reference = 0; // what the server wants to see in our requests
    uint32_t port_role_filter = 0;
    oxpcsi_callbacks callbacks = {};
    record_list<oxpcsi_port_data> ports;
} self;

constexpr enum_text state_names[] = {
    ENUM_TEXT(OXPCSI_HELPER_STATE_UNINITIALIZED), ENUM_TEXT(OXPCSI_HELPER_STATE_INITIAL),
    ENUM_TEXT(OXPCSI_HELPER_STATE_LOCATING),      ENUM_TEXT(OXPCSI_HELPER_STATE_INITIATING),
    ENUM_TEXT(OXPCSI_HELPER_STATE_INITIATED),     ENUM_TEXT(OXPCSI_HELPER_STATE_SUBSCRIBING),
    ENUM_TEXT(OXPCSI_HELPER_STATE_READY),
};

const char* state_to_str(oxpcsi_helper_state state) {
    return enum_to_str(state_names, state);
}

void change_state(oxpcsi_helper_state state) {
    TAVU_FUNCTION();
    TRACE_STATE_CHANGE("TAVU: Changing state: '%s' -> '%s'", state_to_str(self.state), state_to_str(state));
    self.state = state;
}

oxpcsi_port_data* find_port(const char* name) {
    oxpcsi_port_data* port =
        self.ports.find([&](const oxpcsi_port_data& candidate) { return candidate.port == name; });
    if (!port)
        TRACE("TAVU: Could not find port with name '%s'", name);
    return port;
}

// --- What goes up

void fire_handle_oxpcsi_start_failed() {
    TAVU_FUNCTION();
    TRACE("TAVU: Firing handle_oxpcsi_start_failed");
    self.callbacks.start_failed();
}

void fire_handle_oxpcsi_server_up() {
    TAVU_FUNCTION();
    TRACE("TAVU: Firing handle_oxpcsi_server_up");
    self.callbacks.server_up();
}

void fire_handle_oxpcsi_server_down() {
    TAVU_FUNCTION();
    TRACE("TAVU: Firing handle_oxpcsi_server_down");
    self.callbacks.server_down();
}

void fire_handle_oxpcsi_port_state_change(const char* name) {
    TAVU_FUNCTION();
    TRACE("TAVU: Firing handle_oxpcsi_port_state_change for port '%s'", name);
    self.callbacks.port_state_change(name);
}

void clear_data() {
    TAVU_FUNCTION();
    TRACE("TAVU: Clearing all data");
    if (self.server_mailbox != OKA_MAILBOX_NONE) {
        oka_unmonitor(self.server_monitor);
        self.server_mailbox = OKA_MAILBOX_NONE;
    }
    if (self.own_mailbox != OKA_MAILBOX_NONE) {
        oka_delete_mailbox(self.own_mailbox);
        self.own_mailbox = OKA_MAILBOX_NONE;
    }
    self.connection_reference = 0;
    for (oxpcsi_port_data& port : self.ports) {
        TRACE_DETAIL("TAVU: Removing port '%s' from list of ports", port.port.c_str());
        self.ports.remove(port);
    }
}

void fail_start() {
    TAVU_FUNCTION();
    clear_data();
    change_state(OXPCSI_HELPER_STATE_INITIAL);
    fire_handle_oxpcsi_start_failed();
}

// --- Requests

void send_init_service_req() {
    TAVU_FUNCTION();
    outgoing<oxpcsi_init_service_req> message(OXPCSI_INIT_SERVICE_REQ);
    message->header.procedure_reference = PROC_REF_INITIATE;
    message->header.connection_reference = oxpcsi_client_connection_reference;
    for (be32& version : message->protocol_versions)
        version = oxpcsi_protocol_version;
    TRACE_SEND(message, self.server_mailbox,
               "TAVU: %s connection reference=%u, procedure reference='%s', pv1: %u, pv2: %u, pv3: %u",
               oxpcsi_msg_no_to_str(OXPCSI_INIT_SERVICE_REQ), oxpcsi_client_connection_reference,
               procref_to_str(PROC_REF_INITIATE), oxpcsi_protocol_version, oxpcsi_protocol_version,
               oxpcsi_protocol_version);
    message.send(self.server_mailbox, self.own_mailbox);
}

void send_get_eth_port_support_req() {
    TAVU_FUNCTION();
    outgoing<message_header> message(OXPCSI_GET_ETH_PORT_SUPPORT_REQ);
    message->procedure_reference = PROC_REF_GET_PORTS;
    message->connection_reference = self.connection_reference;
    TRACE_SEND(message, self.server_mailbox, "TAVU: %s connection reference=%u, procedure reference='%s'",
               oxpcsi_msg_no_to_str(OXPCSI_GET_ETH_PORT_SUPPORT_REQ), self.connection_reference,
               procref_to_str(PROC_REF_GET_PORTS));
    message.send(self.server_mailbox, self.own_mailbox);
}

void send_subscribe_eth_port_status_req() {
    TAVU_FUNCTION();
    outgoing<oxpcsi_subscribe_eth_port_status_req> message(OXPCSI_SUBSCRIBE_ETH_PORT_STATUS_REQ);
    message->header.procedure_reference = PROC_REF_SUBSCRIBE;
    message->header.connection_reference = self.connection_reference;
    message->port_role = self.port_role_filter;
    TRACE_SEND(message, self.server_mailbox,
               "TAVU: %s connection reference=%u, procedure reference='%s', port_role: '%s', port_name: '%s'",
               oxpcsi_msg_no_to_str(OXPCSI_SUBSCRIBE_ETH_PORT_STATUS_REQ), self.connection_reference,
               procref_to_str(PROC_REF_SUBSCRIBE), port_role_to_str(self.port_role_filter), "");
    message.send(self.server_mailbox, self.own_mailbox);
}

void locate_server() {
    TAVU_FUNCTION();
    TRACE("TAVU: Start locating server '%s'", server_mailbox_name);
    outgoing<message_header> message(OXPCSI_SERVER_UP_IND);
    oka_locate_async(server_mailbox_name, message.prepared(), self.own_mailbox);
}

void monitor_server() {
    TAVU_FUNCTION();
    outgoing<message_header> message(OXPCSI_SERVER_DOWN_IND);
    self.server_monitor = oka_monitor(self.server_mailbox, message.prepared());
    TRACE("TAVU: Monitoring server mailbox: %u, monitor identifier: %u", self.server_mailbox,
          self.server_monitor);
}

// --- Checks

bool verify_state(const oka_message* message, oxpcsi_helper_state expected) {
    if (self.state == expected)
        return true;
    TRACE_ERROR("TAVU: %s received in wrong state: current: '%s', expected: '%s'",
                oxpcsi_msg_no_to_str(message->number), state_to_str(self.state), state_to_str(expected));
    return false;
}

// All three are checked, so that the trace of a refused message tells everything that was wrong with it.
bool verify_message_header(const oka_message* message, uint32_t connection_reference,
                           uint32_t procedure_reference) {
    TAVU_FUNCTION();
    const message_header& header = as<message_header>(message);
    const char* name = oxpcsi_msg_no_to_str(message->number);
    bool accepted = true;
    if (oka_sender(message) != self.server_mailbox) {
        TRACE_ERROR("TAVU: '%s' is received from wrong mailbox. Actual: %u, expected: %u", name,
                    oka_sender(message), self.server_mailbox);
        accepted = false;
    }
    if (header.connection_reference != connection_reference) {
        TRACE_ERROR("TAVU: '%s' is received with wrong connection reference. Actual: %u, expected: %u", name,
                    uint32_t{header.connection_reference}, connection_reference);
        accepted = false;
    }
    if (header.procedure_reference != procedure_reference) {
        TRACE_ERROR("TAVU: '%s' is received with wrong procedure reference. Actual: %u, expected: %u", name,
                    uint32_t{header.procedure_reference}, procedure_reference);
        accepted = false;
    }
    return accepted;
}

// State, then header: what every message of the server is held against once its size is known.
bool accept(const oka_message* message, oxpcsi_helper_state expected, uint32_t procedure_reference) {
    return verify_state(message, expected) &&
           verify_message_header(message, oxpcsi_client_connection_reference, procedure_reference);
}

template<size_t N>
bool verify_text_length(const char* field, const text<N>& value) {
    if (value.is_terminated())
        return true;
    TRACE_ERROR("TAVU: %s '%s' is %u bytes long, exceeding maximum length %u", field,
                value.printable().c_str(), static_cast<unsigned>(value.length()),
                static_cast<unsigned>(N - 1));
    return false;
}

bool verify_module_present(uint32_t present) {
    if (present == OXPCSI_MODULE_NOT_PRESENT || present == OXPCSI_MODULE_PRESENT)
        return true;
    TRACE_ERROR("TAVU: Invalid port_mod_present value: %u", present);
    return false;
}

// A message that cannot hold one entry, or not all that it announces, is of the wrong size.
bool verify_get_eth_port_support_cfm_size(const oka_message* message) {
    constexpr uint32_t minimum = sizeof(oxpcsi_get_eth_port_support_cfm);
    uint64_t expected = minimum;
    if (oka_size(message) >= minimum) {
        uint64_t entries = as<oxpcsi_get_eth_port_support_cfm>(message).no_ports;
        uint64_t size =
            offsetof(oxpcsi_get_eth_port_support_cfm, first_entry) + entries * sizeof(oxpcsi_port_entry);
        if (size <= oka_size(message))
            return true;
        expected = size;
    }
    TRACE_ERROR("TAVU: Message 0x%x has wrong size: actual: %u bytes, expected at least %u bytes",
                message->number, oka_size(message),
                static_cast<unsigned>(expected > UINT32_MAX ? UINT32_MAX : expected));
    return false;
}

// --- The server's messages

// Locate and monitor messages are our own: they have neither size nor header to be checked.
void handle_server_up_ind(const oka_message* message) {
    TAVU_FUNCTION();
    TRACE_RECEIVE(message, "TAVU: %s", oxpcsi_msg_no_to_str(message->number));
    if (!verify_state(message, OXPCSI_HELPER_STATE_LOCATING))
        return;
    self.server_mailbox = oka_sender(message);
    monitor_server();
    send_init_service_req();
    change_state(OXPCSI_HELPER_STATE_INITIATING);
}

void handle_server_down_ind(const oka_message* message) {
    TAVU_FUNCTION();
    TRACE_RECEIVE(message, "TAVU: %s", oxpcsi_msg_no_to_str(message->number));
    if (self.state == OXPCSI_HELPER_STATE_INITIAL || self.state == OXPCSI_HELPER_STATE_LOCATING) {
        TRACE_ERROR("TAVU: %s received in wrong state: current: '%s', expected: '%s'",
                    oxpcsi_msg_no_to_str(message->number), state_to_str(self.state),
                    "anything but INITIAL or LOCATING");
        return;
    }
    TRACE("TAVU: %s is received in state: '%s'", oxpcsi_msg_no_to_str(message->number),
          state_to_str(self.state));
    clear_data();
    change_state(OXPCSI_HELPER_STATE_INITIAL);
    fire_handle_oxpcsi_server_down();
}

void handle_init_service_cfm(const oka_message* message) {
    TAVU_FUNCTION();
    const auto* cfm = view<oxpcsi_init_service_cfm>(message);
    if (!cfm)
        return;
    uint32_t connection_reference = cfm->header.connection_reference;
    uint32_t selected = cfm->pv_selected;
    TRACE_RECEIVE(message, "TAVU: %s connection reference=%u, procedure reference='%s', pv_selected: %u",
                  oxpcsi_msg_no_to_str(message->number), connection_reference,
                  procref_to_str(cfm->header.procedure_reference), selected);
    // The reference in this message is not ours but the server's, and whatever it is we take it.
    if (!verify_state(message, OXPCSI_HELPER_STATE_INITIATING) ||
        !verify_message_header(message, connection_reference, PROC_REF_INITIATE))
        return;
    if (selected != oxpcsi_protocol_version) {
        TRACE_ERROR(
            "TAVU: %s is received from mailbox %u with not requested protocol version: %u. conn_ref: %u",
            oxpcsi_msg_no_to_str(message->number), oka_sender(message), selected, connection_reference);
        fail_start();
        return;
    }
    self.connection_reference = connection_reference;
    TRACE("TAVU: Requesting ports");
    send_get_eth_port_support_req();
    change_state(OXPCSI_HELPER_STATE_INITIATED);
}

void handle_init_service_rej(const oka_message* message) {
    TAVU_FUNCTION();
    const auto* rej = view<oxpcsi_rej>(message);
    if (!rej)
        return;
    const char* reason = oxpcsi_reject_reason_to_str(rej->reason);
    TRACE_RECEIVE(message, "TAVU: %s connection reference=%u, procedure reference='%s', reason: '%s'",
                  oxpcsi_msg_no_to_str(message->number), uint32_t{rej->header.connection_reference},
                  procref_to_str(rej->header.procedure_reference), reason);
    if (!accept(message, OXPCSI_HELPER_STATE_INITIATING, PROC_REF_INITIATE))
        return;
    TRACE_ERROR("TAVU: %s is received from mailbox %u with reason: '%s'",
                oxpcsi_msg_no_to_str(message->number), oka_sender(message), reason);
    fail_start();
}

// False when the port could not be recorded for want of memory.
bool add_port(const oxpcsi_port_entry& entry) {
    TAVU_FUNCTION();
    TRACE("TAVU: Port name: '%s', capability: '%s', VOTK id: %u, interface name: '%s'", entry.port.c_str(),
          port_role_to_str(entry.port_role), uint32_t{entry.votk_id}, entry.if_name.c_str());
    if (!(entry.port_role & self.port_role_filter))
        return true;
    oxpcsi_port_data* port = self.ports.add();
    if (!port)
        return false;
    port->port_role = entry.port_role;
    port->admin_state = UNINITIALIZED_PORT_ADMIN_STATE;
    port->oper_state = UNINITIALIZED_PORT_OPER_STATE;
    port->votk_id = entry.votk_id;
    port->module_present = OXPCSI_MODULE_NOT_PRESENT;
    memcpy(port->mac_address, entry.mac_address, sizeof port->mac_address);
    port->port = entry.port;
    port->if_name = entry.if_name;
    TRACE("TAVU: Port '%s' is added to the list", port->port.c_str());
    return true;
}

void handle_get_eth_port_support_cfm(const oka_message* message) {
    TAVU_FUNCTION();
    if (!verify_get_eth_port_support_cfm_size(message))
        return;
    const auto& cfm = as<oxpcsi_get_eth_port_support_cfm>(message);
    uint32_t no_ports = cfm.no_ports;
    TRACE_RECEIVE(message, "TAVU: %s connection reference=%u, procedure reference='%s', no_ports: %u",
                  oxpcsi_msg_no_to_str(message->number), uint32_t{cfm.header.connection_reference},
                  procref_to_str(cfm.header.procedure_reference), no_ports);
    if (!accept(message, OXPCSI_HELPER_STATE_INITIATED, PROC_REF_GET_PORTS))
        return;

    for (uint32_t index = 0; index < no_ports; index++) {
        const oxpcsi_port_entry& entry = (&cfm.first_entry)[index];
        // One bad entry costs its own port only.
        if (!verify_text_length("port_name", entry.port) || !verify_text_length("if_name", entry.if_name))
            continue;
        if (!add_port(entry)) {
            fail_start();
            return;
        }
    }

    if (self.ports.empty()) {
        TRACE("TAVU: There are no ports with '%s' capability.", port_role_to_str(self.port_role_filter));
        change_state(OXPCSI_HELPER_STATE_READY);
        fire_handle_oxpcsi_server_up();
        return;
    }
    send_subscribe_eth_port_status_req();
    change_state(OXPCSI_HELPER_STATE_SUBSCRIBING);
}

void handle_get_eth_port_support_rej(const oka_message* message) {
    TAVU_FUNCTION();
    const auto* rej = view<oxpcsi_rej>(message);
    if (!rej)
        return;
    TRACE_RECEIVE(message, "TAVU: %s connection reference=%u, procedure reference='%s', reason: %u",
                  oxpcsi_msg_no_to_str(message->number), uint32_t{rej->header.connection_reference},
                  procref_to_str(rej->header.procedure_reference), uint32_t{rej->reason});
    if (!accept(message, OXPCSI_HELPER_STATE_INITIATED, PROC_REF_GET_PORTS))
        return;
    TRACE_ERROR("TAVU: %s is received from mailbox %u with connection reference: %u, reason: '%s'",
                oxpcsi_msg_no_to_str(message->number), oka_sender(message),
                uint32_t{rej->header.connection_reference}, oxpcsi_reject_reason_to_str(rej->reason));
    fail_start();
}

void handle_subscribe_eth_port_status_cfm(const oka_message* message) {
    TAVU_FUNCTION();
    const auto* cfm = view<oxpcsi_subscribe_eth_port_status_cfm>(message);
    if (!cfm)
        return;
    TRACE_RECEIVE(message, "TAVU: %s connection reference=%u, procedure reference='%s', sub_ref = %u",
                  oxpcsi_msg_no_to_str(message->number), uint32_t{cfm->header.connection_reference},
                  procref_to_str(cfm->header.procedure_reference), uint32_t{cfm->sub_ref});
    if (!accept(message, OXPCSI_HELPER_STATE_SUBSCRIBING, PROC_REF_SUBSCRIBE))
        return;
    TRACE("TAVU: Subscribed on all '%s' ports.", port_role_to_str(self.port_role_filter));
    change_state(OXPCSI_HELPER_STATE_READY);
    fire_handle_oxpcsi_server_up();
}

void handle_subscribe_eth_port_status_rej(const oka_message* message) {
    TAVU_FUNCTION();
    const auto* rej = view<oxpcsi_rej>(message);
    if (!rej)
        return;
    uint32_t connection_reference = rej->header.connection_reference;
    const char* procedure = procref_to_str(rej->header.procedure_reference);
    const char* reason = oxpcsi_reject_reason_to_str(rej->reason);
    TRACE_RECEIVE(message, "TAVU: %s connection reference=%u, procedure reference='%s', reason = '%s'",
                  oxpcsi_msg_no_to_str(message->number), connection_reference, procedure, reason);
    if (!accept(message, OXPCSI_HELPER_STATE_SUBSCRIBING, PROC_REF_SUBSCRIBE))
        return;
    TRACE_ERROR("TAVU: %s is received from mailbox %u with reason: '%s'. connection reference=%u, procedure "
                "reference='%s'",
                oxpcsi_msg_no_to_str(message->number), oka_sender(message), reason, connection_reference,
                procedure);
    fail_start();
}

void update_port(oxpcsi_port_data& port, const oxpcsi_eth_port_status2_ind& ind) {
    TAVU_FUNCTION();
    const char* name = port.port.c_str();
    port.name_space.assign(ind.name_space);
    if (port.admin_state != ind.port_adm_state) {
        TRACE("TAVU: Port admin state updated for port '%s': '%s' -> '%s'", name,
              port_admin_state_to_str(port.admin_state), port_admin_state_to_str(ind.port_adm_state));
        port.admin_state = ind.port_adm_state;
    }
    if (port.oper_state != ind.port_oper_state) {
        TRACE("TAVU: Port oper state updated for port '%s': '%s' -> '%s'", name,
              port_oper_state_to_str(port.oper_state), port_oper_state_to_str(ind.port_oper_state));
        port.oper_state = ind.port_oper_state;
    }
    if (port.module_present != ind.port_mod_present) {
        TRACE("TAVU: Port mod present updated for port '%s': '%s' -> '%s'", name,
              port_mode_present_to_str(port.module_present), port_mode_present_to_str(ind.port_mod_present));
        port.module_present = ind.port_mod_present;
    }
    if (port.line_rate != ind.line_rate) {
        TRACE("TAVU: Port line rate updated for port '%s': %u -> %u", name, port.line_rate,
              uint32_t{ind.line_rate});
        port.line_rate = ind.line_rate;
    }
}

void handle_eth_port_status2_ind(const oka_message* message) {
    TAVU_FUNCTION();
    const auto* ind = view<oxpcsi_eth_port_status2_ind>(message);
    if (!ind)
        return;
    const char* name = oxpcsi_msg_no_to_str(message->number);
    TRACE_RECEIVE(message,
                  "TAVU: %s connection reference=%u, procedure reference='%s', port_name = '%s', "
                  "port_adm_state = '%s', port_oper_state = '%s', name_space = '%s'",
                  name, uint32_t{ind->header.connection_reference},
                  procref_to_str(ind->header.procedure_reference), ind->port.printable().c_str(),
                  port_admin_state_to_str(ind->port_adm_state), port_oper_state_to_str(ind->port_oper_state),
                  ind->name_space.printable().c_str());
    if (!accept(message, OXPCSI_HELPER_STATE_READY, PROC_REF_SUBSCRIBE))
        return;
    if (!verify_text_length("port_name", ind->port) || !verify_text_length("namespace", ind->name_space) ||
        !verify_module_present(ind->port_mod_present))
        return;
    oxpcsi_port_data* port = find_port(ind->port.c_str());
    if (!port) {
        TRACE_ERROR("TAVU: Received %s for unknown port name: '%s'", name, ind->port.c_str());
        return;
    }
    update_port(*port, *ind);
    fire_handle_oxpcsi_port_state_change(port->port.c_str());
}

// Consumed, so that a reply we never asked for does not look like a message nobody knows.
void handle_unexpected(const oka_message* message) {
    TAVU_FUNCTION();
    TRACE_ERROR("TAVU: Unexpected message '%s' received", oxpcsi_msg_no_to_str(message->number));
}

constexpr dispatch_row dispatch_table[] = {
    {OXPCSI_ETH_PORT_STATUS2_IND, handle_eth_port_status2_ind},
    {OXPCSI_SERVER_UP_IND, handle_server_up_ind, origin::prepared},
    {OXPCSI_SERVER_DOWN_IND, handle_server_down_ind, origin::prepared},
    {OXPCSI_INIT_SERVICE_CFM, handle_init_service_cfm},
    {OXPCSI_INIT_SERVICE_REJ, handle_init_service_rej},
    {OXPCSI_GET_ETH_PORT_SUPPORT_CFM, handle_get_eth_port_support_cfm},
    {OXPCSI_GET_ETH_PORT_SUPPORT_REJ, handle_get_eth_port_support_rej},
    {OXPCSI_SUBSCRIBE_ETH_PORT_STATUS_CFM, handle_subscribe_eth_port_status_cfm},
    {OXPCSI_SUBSCRIBE_ETH_PORT_STATUS_REJ, handle_subscribe_eth_port_status_rej},
    {OXPCSI_TERM_SERVICE_CFM, handle_unexpected},
    {OXPCSI_RESERVE_ETH_PORT_CFM, handle_unexpected},
    {OXPCSI_RESERVE_ETH_PORT_REJ, handle_unexpected},
    {OXPCSI_UNRESERVE_ETH_PORT_CFM, handle_unexpected},
    {OXPCSI_UNSUBSCRIBE_ETH_PORT_STATUS_CFM, handle_unexpected},
    {0x1b1055, handle_unexpected},
    {OXPCSI_SET_ETH_PORT_STATE_CFM, handle_unexpected},
    {OXPCSI_SET_ETH_PORT_STATE_REJ, handle_unexpected},
    {OXPCSI_GET_ETH_COUNTERS_CFM, handle_unexpected},
    {OXPCSI_GET_ETH_COUNTERS_REJ, handle_unexpected},
    // The replies of four further procedures, each a request, a confirm and a reject.
    {0x1b105e, handle_unexpected},
    {0x1b105f, handle_unexpected},
    {0x1b1061, handle_unexpected},
    {0x1b1062, handle_unexpected},
    {0x1b1064, handle_unexpected},
    {0x1b1065, handle_unexpected},
    {0x1b1067, handle_unexpected},
    {0x1b1068, handle_unexpected},
};

} // namespace

bool oxpcsi_helper_init(oka_mailbox owner, uint32_t port_role_filter, const oxpcsi_callbacks* callbacks) {
    TAVU_FUNCTION();
    if (!is_in_state(self.state, OXPCSI_HELPER_STATE_UNINITIALIZED, state_to_str))
        return false;
    if (!callbacks || !callbacks->start_failed || !callbacks->server_up || !callbacks->server_down ||
        !callbacks->port_state_change) {
        TRACE_ERROR("TAVU: Callbacks parameter or a callback function is NULL");
        return false;
    }
    self.ports.clear();
    self.owner_mailbox = owner;
    self.callbacks = *callbacks;
    self.port_role_filter = port_role_filter;
    change_state(OXPCSI_HELPER_STATE_INITIAL);
    return true;
}

bool oxpcsi_helper_start(const char* mailbox_name) {
    TAVU_FUNCTION();
    if (!is_in_state(self.state, OXPCSI_HELPER_STATE_INITIAL, state_to_str))
        return false;
    if (self.own_mailbox != OKA_MAILBOX_NONE) {
        TRACE_ERROR("TAVU: Client mailbox is not uninitialized: %u", self.own_mailbox);
        return false;
    }
    self.own_mailbox = oka_clone_mailbox(self.owner_mailbox, mailbox_name);
    if (self.own_mailbox == OKA_MAILBOX_NONE) // the messaging service has said why
        return false;
    locate_server();
    change_state(OXPCSI_HELPER_STATE_LOCATING);
    return true;
}

bool oxpcsi_helper_stop() {
    TAVU_FUNCTION();
    clear_data();
    change_state(OXPCSI_HELPER_STATE_INITIAL);
    return true;
}

bool oxpcsi_dispatch_message(const oka_message* message) {
    TAVU_FUNCTION();
    if (oka_receiver(message) != self.own_mailbox)
        return false;
    return dispatch_by(dispatch_table, message);
}

oxpcsi_port_data* oxpcsi_get_supported_ports_list() {
    TAVU_FUNCTION();
    return self.ports.first();
}

oxpcsi_port_data* oxpcsi_get_next_supported_port(oxpcsi_port_data* port) {
    return self.ports.next_of(*port);
}

bool oxpcsi_get_port_data(const char* name, oxpcsi_port_data& output) {
    TAVU_FUNCTION();
    const oxpcsi_port_data* port = find_port(name);
    if (!port)
        return false;
    output = *port;
    return true;
}

const char* oxpcsi_get_if_name(const char* name) {
    TAVU_FUNCTION();
    const oxpcsi_port_data* port = find_port(name);
    return port ? port->if_name.c_str() : nullptr;
}

oxpcsi_helper_state get_oxpcsi_helper_state() {
    TAVU_FUNCTION();
    return self.state;
}

} // namespace tavu
