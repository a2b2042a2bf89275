// The links that clients publish, and what follows from a link for its port: which end hosts the key server,
// what the CA and the key server are called, and how the port presents itself in the CA.
#include <cstdio>
#include <cstdlib>

#include "base/trace.h"
#include "tavu/key_server/key_server.h"
#include "tavu/oxmsi/oxmsi_server.h"
#include "tavu/port_manager/port_manager_records.h"

namespace tavu {

namespace port_manager {

namespace {

// The end with the smaller MP id hosts the key server. With equal ones neither does: each looks for it at
// the other end.
bool is_local_key_server(const tavu_pm_data& port) {
    TAVU_FUNCTION();
    bool local = port.remote_mpid > static_cast<uint32_t>(self.own_mpid);
    if (local)
        TRACE("TAVU: Key server is on local DU for CA='%s' on port '%s': local MPID=%d, remote MPID=%d,",
              port.ca.c_str(), port.port.c_str(), self.own_mpid, static_cast<int>(port.remote_mpid));
    else
        TRACE("TAVU: Key server is on remote DU for CA='%s' on port '%s': local MPID=%d, remote MPID=%d,",
              port.ca.c_str(), port.port.c_str(), self.own_mpid, static_cast<int>(port.remote_mpid));
    return local;
}

// The key server's end comes first, so that both ends make the same name.
void generate_ca_name(tavu_pm_data& port) {
    TAVU_FUNCTION();
    struct end {
        int mpid;
        const char* port;
    };
    const end own = {self.own_mpid, port.port.c_str()};
    const end remote = {static_cast<int>(port.remote_mpid), port.remote_port.c_str()};
    bool local = is_local_key_server(port);
    const end& server = local ? own : remote;
    const end& other = local ? remote : own;
    snprintf(port.ca.octets, sizeof port.ca.octets, "CA_mp%d_%s_mp%d_%s", server.mpid, server.port,
             other.mpid, other.port);
    TRACE("TAVU: Generated CA name = '%s' for local MPID=%u, local port='%s'remote MPID=%u, remote port='%s'",
          port.ca.c_str(), static_cast<unsigned>(self.own_mpid), own.port, port.remote_mpid, remote.port);
}

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
    // The count of a port that nobody has reserved is a leftover.
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

} // namespace

bool set_own_mp_id() {
    TAVU_FUNCTION();
    const char* value = getenv("MPID");
    if (!value) {
        TRACE_ERROR("TAVU: Read variable 'MPID' failed");
        return false;
    }
    self.own_mpid = static_cast<int32_t>(strtol(value, nullptr, 10)); // 0 for what is not a number
    TRACE("TAVU: Set own mp id '%d'", self.own_mpid);
    return true;
}

void set_user_data_type(tavu_pm_data& port, user_data_type type) {
    TAVU_FUNCTION();
    if (port.user_data == type) {
        TRACE("TAVU: User data type is already '%s'", user_data_type_to_str(type));
        return;
    }
    TRACE("TAVU: Changing user data type from '%s' -> '%s'", user_data_type_to_str(port.user_data),
          user_data_type_to_str(type));
    port.user_data = type;
    if (type == USER_DATA_IDL) {
        port.number_of_links = 0;
        port.procedure_pending = false;
    }
}

void set_key_server_name(tavu_pm_data& port) {
    TAVU_FUNCTION();
    if (is_local_key_server(port))
        port.key_server.assign(key_server_mailbox_name);
    else
        snprintf(port.key_server.octets, sizeof port.key_server.octets, "%s/%s", port.hunt_path.c_str(),
                 key_server_mailbox_name);
    TRACE("TAVU: Key server name for port '%s': '%s'", port.port.c_str(), port.key_server.c_str());
}

void configure_ca(const tavu_pm_data& port, ca_change change) {
    TAVU_FUNCTION();
    if (!is_local_key_server(port))
        return;
    // A retry adds a CA that is there already, and most ports that become unauthenticated never had one.
    if (change == ca_change::add)
        (void)key_server_add_ca(port.ca.c_str());
    else
        (void)key_server_remove_ca(port.ca.c_str());
}

void get_sci_from_mac(const uint8_t* mac, size_t length, sci& output) {
    TAVU_FUNCTION();
    output = {};
    memcpy(output.octets, mac, length < sizeof output.octets ? length : sizeof output.octets);
}

uint32_t oxpcsi_line_rate_to_mka_port_speed(uint32_t line_rate) {
    TAVU_FUNCTION();
    uint32_t port_speed = line_rate;
    TRACE("TAVU: OXPCSI line rate %u -> MKA port speed %u", line_rate, port_speed);
    return port_speed;
}

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
    // Reserving a port that was released meanwhile forgets its link, and there is none left to take away.
    set_user_data_type(*port, USER_DATA_IDL);
    if (port->number_of_links > 0)
        port->number_of_links--;
    set_procedure_pending(*port, REQUEST_LINK_DELETE, client_id, procedure_reference);
    update_state_and_role(*port, port_data);
}

} // namespace tavu
