#include "tavu/kay/kay.h"

#include <cassert>

#include "base/dispatch.h"
#include "base/enum_text.h"
#include "tavu/common/tavu_utils.h"
#include "tavu/kay/kay_events.h"
#include "tavu/kay/kay_records.h"
#include "tavu/kay/kay_secy.h"
#include "tavu/kay/kay_status.h"
#include "tavu/mka/mka_client.h"

namespace tavu {

using namespace kay_internal;

namespace {

void delete_all_kays() {
    TAVU_FUNCTION();
    TRACE("TAVU: Deleting KaYs for all ports");
    while (kay_record* kay = self.kays.first()) {
        ignore_result(clear_kay_data(*kay));
        self.kays.remove(*kay);
    }
}

void handle_connect_unauthenticated(kay_record& kay) {
    TAVU_FUNCTION();
    if (kay.state != KAY_STATE_CREATED && kay.role == MACSEC_ROLE_UNAUTHENTICATED) {
        TRACE("TAVU: KaY for port '%s' has already MACsec role '%s'", kay.port.c_str(),
              kay_macsec_role_to_str(kay.role));
        return;
    }
    change_role(kay, MACSEC_ROLE_UNAUTHENTICATED);
    bool cleared = clear_kay_data(kay);
    update_kay_data(kay, cleared ? KAY_STATE_UNAUTHENTICATED : KAY_STATE_FAILED);
}

bool create_mka_client(kay_record& kay, const char* ca) {
    TAVU_FUNCTION();
    assert(kay.mka_client_id == 0);
    kay.mka_client_id = mka_client_create();
    if (kay.mka_client_id == 0)
        TRACE_ERROR("TAVU: Could not create MKA client instance for CA '%s' on port '%s'", ca,
                    kay.port.c_str());
    return kay.mka_client_id != 0;
}

bool join_ca(kay_record& kay, const char* ca, const char* key_server_name) {
    TAVU_FUNCTION();
    if (!create_mka_client(kay, ca))
        return false;
    kay.ca.assign(ca);
    kay.key_server_name.assign(key_server_name);
    if (mka_client_join_ca(kay.mka_client_id, kay.ca.c_str(), key_server_name, kay.options.mka_port_speed,
                           kay.macsec_supported ? &kay.capabilities : nullptr))
        return true;
    TRACE_ERROR("TAVU: Could not join CA '%s' for port '%s'", kay.ca.c_str(), kay.port.c_str());
    return false;
}

void handle_connect_secured(kay_record& kay, const char* ca, const char* key_server_name,
                            const kay_configuration_options& options) {
    TAVU_FUNCTION();
    if (kay.role == MACSEC_ROLE_SECURED) {
        TRACE("TAVU: KaY for port '%s' has already MACsec role '%s' and runtime reconfiguration of MACsec "
              "configuration options is not supported.",
              kay.port.c_str(), kay_macsec_role_to_str(kay.role));
        return;
    }
    kay.options = options;
    change_role(kay, MACSEC_ROLE_SECURED);
    if (apply_macsec_configuration(kay) && join_ca(kay, ca, key_server_name))
        update_kay_data(kay, KAY_STATE_CA_JOIN_PENDING);
    else
        handle_failure(kay);
}

// Enables the controlled port and takes the unauthenticated role. False when the SecY refuses; nothing is
// left in it then.
bool bring_up(kay_record& kay) {
    if (!kay_secy_get_capabilities(kay) || !enable_macsec_cp(kay))
        return false;
    handle_connect_unauthenticated(kay);
    if (kay.state != KAY_STATE_FAILED)
        return true;
    ignore_result(clear_kay_data(kay));
    return false;
}

// Null, after an error trace, when the module is not ready or the port has no KaY. `operation` is the caller.
kay_record* find_connecting_kay(const char* name, const char* operation = __builtin_FUNCTION()) {
    if (!is_in_state(self.state, GLOBAL_STATE_READY, global_state_to_str, "TAVU", operation))
        return nullptr;
    kay_record* kay = find_kay_by_port_name(name);
    if (!kay)
        TRACE_ERROR("TAVU: Could not find KaY with port name '%s'", name);
    return kay;
}

} // namespace

bool kay_init(oka_mailbox parent, const kay_callbacks* callbacks) {
    TAVU_FUNCTION();
    if (!is_in_state(self.state, GLOBAL_STATE_UNINITIALIZED, global_state_to_str))
        return false;
    if (!callbacks || !callbacks->handle_kay_state_change_ind) {
        TRACE_ERROR("TAVU: Callbacks parameter or a callback function is NULL");
        return false;
    }
    if (!mka_client_init(parent, &kay_mka_event_handlers)) {
        TRACE_ERROR("TAVU: Could not initialize MKA client");
        return false;
    }
    if (!kay_secy_macsec_init())
        return false;
    self.callbacks = *callbacks;
    self.kays.clear();
    change_global_state(GLOBAL_STATE_INITIALIZED);
    return true;
}

bool kay_start() {
    TAVU_FUNCTION();
    if (!is_in_state(self.state, GLOBAL_STATE_INITIALIZED, global_state_to_str))
        return false;
    if (!mka_client_start()) {
        TRACE_ERROR("TAVU: Could not start MKA client");
        return false;
    }
    change_global_state(GLOBAL_STATE_READY);
    return true;
}

bool kay_stop() {
    TAVU_FUNCTION();
    if (!is_in_state(self.state, GLOBAL_STATE_READY, global_state_to_str))
        return false;
    bool stopped = mka_client_stop();
    if (!stopped)
        TRACE_ERROR("TAVU: Could not stop MKA client");
    delete_all_kays();
    change_global_state(GLOBAL_STATE_INITIALIZED);
    return stopped;
}

bool kay_create_instance(const char* name) {
    TAVU_FUNCTION();
    if (!is_in_state(self.state, GLOBAL_STATE_READY, global_state_to_str))
        return false;
    TRACE("TAVU: Creating a KaY instance for port '%s'", name);
    if (find_kay_by_port_name(name)) {
        TRACE_ERROR("TAVU: KaY with port name '%s' already exists", name);
        return false;
    }
    uint32_t port_handle;
    if (!idl_port_name_to_port_handle(name, port_handle)) {
        TRACE_ERROR("TAVU: Could not get port handle for port '%s'", name);
        return false;
    }
    // Two names of one port would take each other's keys away.
    if (const kay_record* other =
            self.kays.find([=](const kay_record& each) { return each.port_handle == port_handle; })) {
        TRACE_ERROR("TAVU: Port '%s' is the same hardware port as '%s'", name, other->port.c_str());
        return false;
    }
    kay_record* kay = self.kays.add();
    if (!kay)
        return false;
    kay->port.assign(name);
    kay->port_handle = port_handle;
    if (!bring_up(*kay)) {
        self.kays.remove(*kay);
        return false;
    }
    TRACE("TAVU: KaY for port '%s' is created", name);
    return true;
}

bool kay_connect_unauthenticated(const char* name, kay_state_change_ind& indication) {
    TAVU_FUNCTION();
    kay_record* kay = find_connecting_kay(name);
    if (!kay)
        return false;
    TRACE("TAVU: Port '%s' will have unauthenticated role", name);
    handle_connect_unauthenticated(*kay);
    fill_kay_state_change_ind(*kay, indication);
    return true;
}

bool kay_connect_secured(const char* name, const char* ca, const char* key_server_name,
                         const kay_configuration_options& options) {
    TAVU_FUNCTION();
    kay_record* kay = find_connecting_kay(name);
    if (!kay)
        return false;
    TRACE("TAVU: Port '%s' will have secured role by using CA '%s' and key server '%s'", name, ca,
          key_server_name);
    handle_connect_secured(*kay, ca, key_server_name, options);
    return true;
}

bool kay_get_state(const char* name, kay_state_change_ind& indication) {
    TAVU_FUNCTION();
    const kay_record* kay = find_kay_by_port_name(name);
    if (kay)
        fill_kay_state_change_ind(*kay, indication);
    return kay;
}

bool kay_dispatch_message(const oka_message* message) {
    TAVU_FUNCTION();
    if (!is_in_state(self.state, GLOBAL_STATE_READY, global_state_to_str))
        return false;
    constexpr dispatch_row table[] = {
        {KAY_SA_DISPOSAL_TIMEOUT_IND, kay_handle_sa_disposal_timeout, origin::prepared},
    };
    return dispatch_by(table, message);
}

} // namespace tavu
