#include "tavu/port_manager/port_manager_roles.h"

#include <cassert>

#include "base/ignore_result.h"
#include "base/trace.h"
#include "platform/oxhal.h"
#include "protocols/message_numbers.h"
#include "tavu/common/tavu_utils.h"
#include "tavu/port_manager/port_manager_naming.h"
#include "tavu/port_manager/port_manager_reports.h"

namespace tavu::port_manager {

namespace {

// The message that the retry timer delivers.
struct retry_timeout_ind {
    TAVU_FIELD(0, number, host32);
    TAVU_FIELD(4, port, port_name);
};
TAVU_WIRE_LAYOUT(retry_timeout_ind, 20);

// --- Decision

bool is_idl_link_macsec_enabled(uint32_t link_status) {
    TAVU_FUNCTION();
    bool enabled =
        link_status == OXMSI_LTM_LINK_STATUS_UP || link_status == OXMSI_LTM_LINK_STATUS_MACSEC_PENDING;
    if (enabled)
        TRACE("TAVU: IDLe link state: '%s' -> link is MACsec-enabled", tavu_link_status_to_str(link_status));
    else
        TRACE("TAVU: IDLe link state: '%s' -> link is MACsec-disabled", tavu_link_status_to_str(link_status));
    return enabled;
}

// The target of an enabled port whose link may use MACsec; it depends on the unit at the other end.
tavu_pm_state get_target_state_for_du_type(const tavu_pm_data& port) {
    const char* name = port.port.c_str();
    const char* user_data = user_data_type_to_str(port.user_data);
    const char* link_status = tavu_link_status_to_str(port.link_status);
    tavu_pm_state target = TAVU_PM_STATE_INITIAL;
    switch (port.du_type) {
    case OXMSI_DU_TYPE_2:
        target = TAVU_PM_STATE_UNAUTHENTICATED;
        TRACE(
            "TAVU: Port '%s' is enabled, user_data_type='%s', %u links, link state='%s', type-2 remote DU -> "
            "target state: '%s'",
            name, user_data, port.number_of_links, link_status, state_to_str(target));
        break;
    case OXMSI_DU_TYPE_3:
        target = TAVU_PM_STATE_CA_JOINED;
        TRACE(
            "TAVU: Port '%s' is enabled, user_data_type='%s', %u links, link state='%s', type-3 remote DU -> "
            "target state: '%s'",
            name, user_data, port.number_of_links, link_status, state_to_str(target));
        break;
    default:
        TRACE_ERROR(
            "TAVU: Port '%s' is enabled, user_data_type='%s', %u links, link state='%s', unknown remote "
            "DU -> target state: '%s'",
            name, user_data, port.number_of_links, link_status, state_to_str(target));
        break;
    }
    return target;
}

tavu_pm_state get_target_state(const tavu_pm_data& port, const oxpcsi_port_data& port_data) {
    TAVU_FUNCTION();
    constexpr tavu_pm_state none = TAVU_PM_STATE_INITIAL;
    const char* name = port.port.c_str();
    if (port_data.oper_state != OXPCSI_PORT_OPER_STATE_ENABLED ||
        port_data.admin_state != OXPCSI_PORT_ADM_STATE_UNLOCKED) {
        TRACE("TAVU: Port '%s' is not enabled, target state: '%s'", name, state_to_str(none));
        return none;
    }
    if (port.user_data == USER_DATA_NONE) {
        TRACE("TAVU: Port '%s' is enabled, user_data_type='%s' -> target state: '%s'", name,
              user_data_type_to_str(port.user_data), state_to_str(none));
        return none;
    }
    if (port.number_of_links == 0) {
        TRACE("TAVU: Port '%s' is enabled, user_data_type='%s', no links -> target state: '%s'", name,
              user_data_type_to_str(port.user_data), state_to_str(none));
        return none;
    }
    if (!is_idl_link_macsec_enabled(port.link_status)) {
        TRACE("TAVU: Port '%s' is enabled, user_data_type='%s', %u links, link state='%s' -> target state: "
              "'%s'",
              name, user_data_type_to_str(port.user_data), port.number_of_links,
              tavu_link_status_to_str(port.link_status), state_to_str(none));
        return none;
    }
    return get_target_state_for_du_type(port);
}

macsec_role get_role_for_state(tavu_pm_state state) {
    TAVU_FUNCTION();
    switch (state) {
    case TAVU_PM_STATE_INITIAL:
    case TAVU_PM_STATE_UNAUTHENTICATED:
    case TAVU_PM_STATE_FAILED:
        return MACSEC_ROLE_UNAUTHENTICATED;
    case TAVU_PM_STATE_CA_JOINING:
    case TAVU_PM_STATE_CA_JOINED:
        return MACSEC_ROLE_SECURED;
    }
    TRACE_ERROR("TAVU: Unhandled state value %u", static_cast<unsigned>(state));
    return MACSEC_ROLE_UNAUTHENTICATED;
}

// --- Failure and retry

void start_retry_timer(tavu_pm_data& port) {
    TAVU_FUNCTION();
    assert(port.retry_timer == 0);
    outgoing<retry_timeout_ind> message(TAVU_PM_RETRY_TIMEOUT_IND);
    message->port = port.port;
    port.retry_timer = oka_timer_request_sig(tavu_pm_retry_ms, message.prepared());
}

void handle_failure(tavu_pm_data& port) {
    TAVU_FUNCTION();
    TRACE("TAVU: Failure on port '%s', will retry later", port.port.c_str());
    change_state(port, TAVU_PM_STATE_FAILED);
    change_port_valid(port, false);
    start_retry_timer(port);
    fire_oxmsi_pending_procedure_response(port);
}

// --- Execution

bool set_unauthenticated(tavu_pm_data& port) {
    change_state(port, TAVU_PM_STATE_UNAUTHENTICATED);
    kay_state_change_ind indication = {}; // not filled by a KaY that refuses
    bool connected = kay_connect_unauthenticated(port.port.c_str(), indication) && !indication.error;
    if (!connected)
        TRACE_ERROR("TAVU: Could not set MACsec role '%s' for port '%s'",
                    kay_macsec_role_to_str(MACSEC_ROLE_UNAUTHENTICATED), port.port.c_str());
    change_encryption_state(port, indication.encryption_state);
    if (!connected)
        return false;
    change_port_valid(port, true);
    fire_oxmsi_pending_procedure_response(port);
    return true;
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

// What the KaY says of itself; the port is on its way to a CA, or in one, or the KaY is late.
void take_kay_state(tavu_pm_data& port, const kay_state_change_ind& indication) {
    const char* name = port.port.c_str();
    change_encryption_state(port, indication.encryption_state);
    bool operational = indication.port_valid && indication.oper_state == KAY_CP_OPER_ENABLED;
    switch (port.state) {
    case TAVU_PM_STATE_CA_JOINING:
        if (indication.error) {
            TRACE("TAVU: KaY connect failed on port '%s'", name);
            handle_failure(port);
        } else if (operational) {
            TRACE("TAVU: KaY connect success on port '%s'", name);
            change_port_valid(port, true);
            change_state(port, TAVU_PM_STATE_CA_JOINED);
            fire_oxmsi_pending_procedure_response(port);
        } else {
            TRACE("TAVU: Keep waiting for KaY success or failure on port '%s'", name);
        }
        return;
    case TAVU_PM_STATE_CA_JOINED:
        if (!indication.error && operational) {
            TRACE("TAVU: KaY is still operational on port '%s'", name);
        } else {
            TRACE("TAVU: KaY failure on port '%s'", name);
            handle_failure(port);
        }
        return;
    case TAVU_PM_STATE_INITIAL:
    case TAVU_PM_STATE_UNAUTHENTICATED:
    case TAVU_PM_STATE_FAILED:
        break;
    }
    TRACE("TAVU: WARNING: handle_kay_state_change_ind called in wrong state: current: '%s', expected: "
          "'TAVU_PM_STATE_CA_JOINING or TAVU_PM_STATE_CA_JOINED'",
          state_to_str(port.state));
}

// A KaY reports changes. One that fails again, or is secured already, has none to report: what it is now is
// the answer. False when it has failed.
bool take_unreported_kay_state(tavu_pm_data& port) {
    kay_state_change_ind present = {};
    if (port.state != TAVU_PM_STATE_CA_JOINING || !kay_get_state(port.port.c_str(), present))
        return true;
    if (present.error)
        return false;
    if (present.port_valid)
        take_kay_state(port, present);
    return true;
}

bool set_secured(tavu_pm_data& port) {
    change_state(port, TAVU_PM_STATE_CA_JOINING);
    oxpcsi_port_data port_data;
    if (!oxpcsi_get_port_data(port.port.c_str(), port_data)) {
        TRACE_ERROR("TAVU: Could not get port data for '%s'", port.port.c_str());
        return false;
    }
    set_key_server_name(port);
    kay_configuration_options options = {};
    options.mka_port_speed = oxpcsi_line_rate_to_mka_port_speed(port_data.line_rate);
    options.replay_protection = true;
    options.replay_window = 0;
    get_sci_from_mac(port_data.mac_address, sizeof port_data.mac_address, options.identifier);
    options.use_es = false;
    options.use_scb = false;
    options.always_use_sci = true;
    options.validate_frames = OXHAL_MACSEC_VALIDATE_FRAMES_STRICT;
    change_port_valid(port, false); // until the KaY reports
    bool connects =
        kay_connect_secured(port.port.c_str(), port.ca.c_str(), port.key_server.c_str(), options) &&
        take_unreported_kay_state(port);
    if (!connects)
        TRACE_ERROR("TAVU: Could not set MACsec role '%s' for port '%s'",
                    kay_macsec_role_to_str(MACSEC_ROLE_SECURED), port.port.c_str());
    return connects;
}

} // namespace

void stop_retry_timer(tavu_pm_data& port) {
    TAVU_FUNCTION();
    if (port.retry_timer == 0) {
        TRACE("TAVU: No retry timer running for port '%s'", port.port.c_str());
        return;
    }
    TRACE("TAVU: Stopping running retry timer for port '%s'", port.port.c_str());
    oka_timer_cancel(port.retry_timer);
    port.retry_timer = 0;
}

bool set_port_role(tavu_pm_data& port, macsec_role role) {
    TAVU_FUNCTION();
    change_macsec_role(port, role);
    switch (role) {
    case MACSEC_ROLE_UNAUTHENTICATED:
        return set_unauthenticated(port);
    case MACSEC_ROLE_SECURED:
        return set_secured(port);
    }
    return false;
}

void set_port_roles(macsec_role role) {
    TAVU_FUNCTION();
    for (tavu_pm_data& port : self.ports)
        ignore_result(set_port_role(port, role)); // the failure of one port does not stop the others
}

void update_state_and_role(tavu_pm_data& port, const oxpcsi_port_data& port_data) {
    TAVU_FUNCTION();
    tavu_pm_state target = get_target_state(port, port_data);
    if (port.state == TAVU_PM_STATE_CA_JOINING && target == TAVU_PM_STATE_CA_JOINED) {
        // The KaY's report will end what is pending.
        TRACE("TAVU: Already in pending state '%s' for port '%s', nothing to do", state_to_str(target),
              port.port.c_str());
        return;
    }
    if (port.state == target) {
        TRACE("TAVU: Already in state '%s' for port '%s', nothing to do", state_to_str(target),
              port.port.c_str());
        fire_oxmsi_pending_procedure_response(port);
        return;
    }
    stop_retry_timer(port);
    macsec_role role = get_role_for_state(target);
    // The CA exists before its first member joins, and until its last one has left.
    if (role == MACSEC_ROLE_SECURED)
        configure_ca(port, ca_change::add);
    if (!set_port_role(port, role)) {
        handle_failure(port);
        return;
    }
    if (role == MACSEC_ROLE_UNAUTHENTICATED)
        configure_ca(port, ca_change::remove);
    fire_oxmsi_macsec_port_status_ind(port);
}

void tavu_pm_handle_retry_timeout(const oka_message* message) {
    TAVU_FUNCTION();
    const auto* expiry = view<retry_timeout_ind>(message);
    if (!expiry)
        return;
    const auto name = expiry->port.printable();
    tavu_pm_data* port = find_tavu_pm_data(name.c_str());
    if (!port) {
        TRACE_ERROR("TAVU: Retry timeout received for port '%s', but no port found with that name",
                    name.c_str());
        return;
    }
    if (port->retry_timer == 0) {
        TRACE_ERROR("TAVU: Retry timeout received for port '%s', but no timer is running for that name",
                    name.c_str());
        return;
    }
    port->retry_timer = 0;
    oxpcsi_port_data port_data;
    if (!oxpcsi_get_port_data(name.c_str(), port_data)) {
        TRACE_ERROR("TAVU: Retry timeout received for port '%s', but could not find port data with that name",
                    name.c_str());
        return;
    }
    update_state_and_role(*port, port_data);
}

void handle_kay_state_change_ind(const char* name, const kay_state_change_ind& indication) {
    TAVU_FUNCTION();
    if (!is_ready())
        return;
    tavu_pm_data* port = find_tavu_pm_data(name);
    if (!port) {
        TRACE_ERROR("TAVU: Could not find port data with name '%s'", name);
        return;
    }
    TRACE("TAVU: handle_kay_state_change_ind called: error='%s', port_valid='%s', oper_state='%s', "
          "macsec_encryption_state='%s'",
          bool_to_str(indication.error), bool_to_str(indication.port_valid),
          cp_oper_state_to_str(indication.oper_state),
          macsec_encryption_state_to_str(indication.encryption_state));
    take_kay_state(*port, indication);
}

} // namespace tavu::port_manager
