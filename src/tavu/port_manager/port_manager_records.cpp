#include "tavu/port_manager/port_manager_records.h"

#include "base/enum_text.h"
#include "base/trace.h"
#include "tavu/common/tavu_utils.h"

namespace tavu::port_manager {

module_data self;

namespace {

constexpr enum_text global_state_names[] = {
    ENUM_TEXT(TAVU_PM_GLOBAL_STATE_UNINITIALIZED),
    ENUM_TEXT(TAVU_PM_GLOBAL_STATE_INITIALIZED),
    ENUM_TEXT(TAVU_PM_GLOBAL_STATE_READY),
};

constexpr enum_text state_names[] = {
    ENUM_TEXT(TAVU_PM_STATE_INITIAL),    ENUM_TEXT(TAVU_PM_STATE_UNAUTHENTICATED),
    ENUM_TEXT(TAVU_PM_STATE_CA_JOINING), ENUM_TEXT(TAVU_PM_STATE_CA_JOINED),
    ENUM_TEXT(TAVU_PM_STATE_FAILED),
};

constexpr enum_text user_data_type_names[] = {
    ENUM_TEXT(USER_DATA_NONE),
    ENUM_TEXT(USER_DATA_IDL),
};

constexpr enum_text request_type_names[] = {
    ENUM_TEXT(REQUEST_LINK_ADD),
    ENUM_TEXT(REQUEST_LINK_UPDATE),
    ENUM_TEXT(REQUEST_LINK_DELETE),
};

} // namespace

const char* global_state_to_str(tavu_pm_global_state state) {
    return enum_to_str(global_state_names, state);
}
const char* state_to_str(tavu_pm_state state) {
    return enum_to_str(state_names, state);
}
const char* user_data_type_to_str(user_data_type type) {
    return enum_to_str(user_data_type_names, type);
}
const char* request_type_to_str(request_type type) {
    return enum_to_str(request_type_names, type);
}

bool is_ready(const char* operation, const char* file, int line) {
    return is_in_state(self.global_state, TAVU_PM_GLOBAL_STATE_READY, global_state_to_str, "TAVU", operation,
                       file, line);
}

tavu_pm_data* find_tavu_pm_data(const char* name) {
    TAVU_FUNCTION();
    tavu_pm_data* port =
        self.ports.find([&](const tavu_pm_data& candidate) { return candidate.port == name; });
    if (!port)
        TRACE("TAVU: Could not find port with name '%s'", name);
    return port;
}

tavu_pm_data* find_port_or_complain(const char* name) {
    tavu_pm_data* port = find_tavu_pm_data(name);
    if (!port)
        TRACE_ERROR("TAVU: Could not find port with name '%s'", name);
    return port;
}

bool read_port_data(const char* name, oxpcsi_port_data& port_data) {
    if (oxpcsi_get_port_data(name, port_data))
        return true;
    TRACE_ERROR("TAVU: Could not find port data with name '%s'", name);
    return false;
}

void delete_subscriber(subscriber_record& subscriber) {
    TAVU_FUNCTION();
    TRACE("TAVU: Deleting subscriber client id=%u for port '%s'", subscriber.client_id,
          subscriber.port.c_str());
    self.subscribers.remove(subscriber);
}

void change_global_state(tavu_pm_global_state state) {
    TAVU_FUNCTION();
    TRACE_STATE_CHANGE("TAVU: Port manager changing state: '%s' -> '%s'",
                       global_state_to_str(self.global_state), global_state_to_str(state));
    self.global_state = state;
}

void change_state(tavu_pm_data& port, tavu_pm_state state) {
    TAVU_FUNCTION();
    TRACE_STATE_CHANGE("TAVU: Port '%s': changing state: '%s' -> '%s'", port.port.c_str(),
                       state_to_str(port.state), state_to_str(state));
    port.state = state;
}

void change_macsec_role(tavu_pm_data& port, macsec_role role) {
    TAVU_FUNCTION();
    TRACE_STATE_CHANGE("TAVU: Port '%s': changing MACsec role: '%s' -> '%s'", port.port.c_str(),
                       kay_macsec_role_to_str(port.role), kay_macsec_role_to_str(role));
    port.role = role;
}

void change_port_valid(tavu_pm_data& port, bool valid) {
    TAVU_FUNCTION();
    TRACE_STATE_CHANGE("TAVU: Port '%s': changing port valid: '%s' -> '%s'", port.port.c_str(),
                       bool_to_str(port.port_valid), bool_to_str(valid));
    port.port_valid = valid;
}

void change_encryption_state(tavu_pm_data& port, macsec_encryption_state state) {
    TAVU_FUNCTION();
    TRACE_STATE_CHANGE("TAVU: Port '%s': changing port encryption state: '%s' -> '%s'", port.port.c_str(),
                       macsec_encryption_state_to_str(port.encryption_state),
                       macsec_encryption_state_to_str(state));
    port.encryption_state = state;
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

} // namespace tavu::port_manager
