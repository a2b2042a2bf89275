#include "tavu/tavu_main.h"

#include <cstdlib>

#include "base/enum_text.h"
#include "base/trace.h"
#include "platform/oka_timer.h"
#include "platform/oxhal.h"
#include "tavu/common/tavu_utils.h"
#include "tavu/kay/kay.h"
#include "tavu/key_server/key_server.h"
#include "tavu/mka/mka_client.h"
#include "tavu/mka/mka_server.h"
#include "tavu/oxmsi/oxmsi_server.h"
#include "tavu/oxpcsi/oxpcsi_helper.h"
#include "tavu/port_manager/port_manager.h"

namespace tavu {

namespace {

constexpr const char* thread_name = "qel-tavu";
constexpr const char* service_name = "oxmsi";
constexpr const char* oxpcsi_client_mailbox_name = "tavu-main-oxpcsi-client";
constexpr uint32_t oka_platform_word = 37;
constexpr int exit_code = 1;

struct {
    tavu_main_state state = TAVU_MAIN_STATE_UNINITIALIZED;
    oka_mailbox root_mailbox = OKA_MAILBOX_NONE;
} self;

constexpr enum_text state_names[] = {
    ENUM_TEXT(TAVU_MAIN_STATE_UNINITIALIZED),
    ENUM_TEXT(TAVU_MAIN_STATE_INITIALIZED),
    ENUM_TEXT(TAVU_MAIN_STATE_STARTED),
    ENUM_TEXT(TAVU_MAIN_STATE_READY),
};

const char* state_to_str(tavu_main_state state) {
    return enum_to_str(state_names, state);
}

void change_state(tavu_main_state state) {
    TAVU_FUNCTION();
    TRACE_STATE_CHANGE("TAVU: Changing state: '%s' -> '%s'", state_to_str(self.state), state_to_str(state));
    self.state = state;
}

// Afterwards tavu_main_start can begin again. The key server is not stopped: its CAs remain.
void clear_data() {
    TAVU_FUNCTION();
    if (!oxmsi_server_stop())
        TRACE_ERROR("TAVU: Stopping OXMSI server failed, continuing");
    if (!tavu_pm_stop())
        TRACE_ERROR("TAVU: Stopping TAVU port manager failed, continuing");
    if (!oxpcsi_helper_stop())
        TRACE_ERROR("TAVU: Stopping OXPCSI helper failed, continuing");
}

[[noreturn]] void clear_and_terminate() {
    clear_data();
    tavu_main_terminate();
}

bool create_port_managers() {
    TAVU_FUNCTION();
    uint32_t created = 0;
    for (oxpcsi_port_data* port = oxpcsi_get_supported_ports_list(); port;
         port = oxpcsi_get_next_supported_port(port)) {
        if (created == max_port_managers) {
            TRACE_ERROR("TAVU: Maximum number of port managers (%u) reached when trying to create port '%s'",
                        max_port_managers, port->port.c_str());
            return false;
        }
        if (!tavu_pm_create_instance(port->port.c_str()))
            return false;
        created++;
    }
    return true;
}

bool generate_sak(uint32_t key_len, uint8_t* key) {
    TAVU_FUNCTION();
    return oxhal_macsec_generate_key(key_len, key) == 0;
}

// Each callback asks this first: an event in the wrong state is ignored.
bool is_event_in_state(const char* event, tavu_main_state expected) {
    if (self.state == expected)
        return true;
    TRACE_ERROR("TAVU: %s received in wrong state: current: '%s', expected: '%s'", event,
                state_to_str(self.state), state_to_str(expected));
    return false;
}

// --- Callbacks of the port-control client

void handle_oxpcsi_start_failed() {
    TAVU_FUNCTION();
    TRACE_ERROR("TAVU: Received oxpcsi_start_failed");
    if (is_event_in_state("oxpcsi_start_failed", TAVU_MAIN_STATE_STARTED))
        clear_and_terminate();
}

void handle_oxpcsi_server_up() {
    TAVU_FUNCTION();
    TRACE("TAVU: Received oxpcsi_server_up");
    if (!is_event_in_state("oxpcsi_server_up", TAVU_MAIN_STATE_STARTED))
        return;
    if (!create_port_managers()) {
        TRACE_ERROR("TAVU: Could not create port managers");
        clear_and_terminate();
    }
    if (!oxmsi_server_publish(service_name)) {
        TRACE_ERROR("TAVU: Could not publish '%s'", service_name);
        clear_and_terminate();
    }
    change_state(TAVU_MAIN_STATE_READY);
}

void handle_oxpcsi_server_down() {
    TAVU_FUNCTION();
    TRACE("TAVU: Received oxpcsi_server_down");
    clear_data();
    change_state(TAVU_MAIN_STATE_INITIALIZED);
    if (!tavu_main_start())
        clear_and_terminate();
}

void handle_oxpcsi_port_state_change(const char* name) {
    TAVU_FUNCTION();
    TRACE("TAVU: Received oxpcsi_port_state_change for port '%s'", name);
    if (!is_event_in_state("oxpcsi_port_state_change", TAVU_MAIN_STATE_READY))
        return;
    oxpcsi_port_data port;
    if (!oxpcsi_get_port_data(name, port)) {
        TRACE_ERROR("TAVU: Could not get port data for port name '%s'", name);
        return;
    }
    tavu_pm_handle_oxpcsi_port_state_change(port);
}

// --- Callbacks of the MACsec service server. A request that comes too early is rejected, so that its client
// does not wait for an answer.

void handle_oxmsi_idl_link_added_req(uint32_t client_id, uint32_t procedure_reference, const oxmsi_link& link,
                                     const oka_hunt_path& hunt_path) {
    TAVU_FUNCTION();
    TRACE("TAVU: Received oxmsi_idl_link_added_req for port '%s'", link.port.c_str());
    if (is_event_in_state("oxmsi_idl_link_added_req", TAVU_MAIN_STATE_READY))
        tavu_pm_handle_oxmsi_idl_link_added_req(client_id, procedure_reference, link, hunt_path);
    else
        send_oxmsi_idl_link_added_rej(client_id, procedure_reference, OXMSI_REJ_INTERNAL_ERROR);
}

void handle_oxmsi_idl_link_deleted_req(uint32_t client_id, uint32_t procedure_reference, const char* name,
                                       uint32_t link_id) {
    TAVU_FUNCTION();
    TRACE("TAVU: Received oxmsi_idl_link_deleted_req for port '%s'", name);
    if (is_event_in_state("oxmsi_idl_link_deleted_req", TAVU_MAIN_STATE_READY))
        tavu_pm_handle_oxmsi_idl_link_deleted_req(client_id, procedure_reference, name, link_id);
    else
        send_oxmsi_idl_link_deleted_rej(client_id, procedure_reference, OXMSI_REJ_INTERNAL_ERROR);
}

void handle_oxmsi_idl_link_updated_req(uint32_t client_id, uint32_t procedure_reference,
                                       const oxmsi_link& link) {
    TAVU_FUNCTION();
    TRACE("TAVU: Received oxmsi_idl_link_updated_req for port '%s'", link.port.c_str());
    if (is_event_in_state("oxmsi_idl_link_updated_req", TAVU_MAIN_STATE_READY))
        tavu_pm_handle_oxmsi_idl_link_updated_req(client_id, procedure_reference, link);
    else
        send_oxmsi_idl_link_updated_rej(client_id, procedure_reference, OXMSI_REJ_INTERNAL_ERROR);
}

void handle_oxmsi_subscribe_req(uint32_t client_id, uint32_t procedure_reference, const char* name) {
    TAVU_FUNCTION();
    TRACE("TAVU: Received oxmsi_subscribe_req for port '%s'", name);
    if (is_event_in_state("oxmsi_subscribe_req", TAVU_MAIN_STATE_READY))
        tavu_pm_handle_oxmsi_subscribe_req(client_id, procedure_reference, name);
    else
        send_oxmsi_subscribe_port_status_rej(client_id, procedure_reference, OXMSI_REJ_INTERNAL_ERROR);
}

void handle_oxmsi_unsubscribe_req(uint32_t client_id, uint32_t procedure_reference, const char* name) {
    TAVU_FUNCTION();
    TRACE("TAVU: Received oxmsi_unsubscribe_req for port '%s'", name);
    if (is_event_in_state("oxmsi_unsubscribe_req", TAVU_MAIN_STATE_READY))
        tavu_pm_handle_oxmsi_unsubscribe_req(client_id, procedure_reference, name);
    else
        send_oxmsi_unsubscribe_port_status_cfm(client_id, procedure_reference);
}

void handle_oxmsi_client_down_ind(uint32_t client_id) {
    TAVU_FUNCTION();
    TRACE("TAVU: Received oxmsi_client_down_ind for client %u", client_id);
    if (is_event_in_state("oxmsi_client_down_ind", TAVU_MAIN_STATE_READY))
        tavu_pm_handle_oxmsi_client_down_ind(client_id);
}

void handle_oxmsi_connection_close_ind(uint32_t client_id) {
    TAVU_FUNCTION();
    TRACE("TAVU: Received oxmsi_connection_close_ind for client %u", client_id);
    if (is_event_in_state("oxmsi_connection_close_ind", TAVU_MAIN_STATE_READY))
        tavu_pm_handle_oxmsi_connection_close_ind(client_id);
}

constexpr oxmsi_callbacks oxmsi_callback_table = {
    handle_oxmsi_idl_link_added_req,   handle_oxmsi_idl_link_deleted_req, handle_oxmsi_idl_link_updated_req,
    handle_oxmsi_subscribe_req,        handle_oxmsi_unsubscribe_req,      handle_oxmsi_client_down_ind,
    handle_oxmsi_connection_close_ind,
};

constexpr oxpcsi_callbacks oxpcsi_callback_table = {
    handle_oxpcsi_start_failed,
    handle_oxpcsi_server_up,
    handle_oxpcsi_server_down,
    handle_oxpcsi_port_state_change,
};

// The first module that recognises a message handles it to completion.
constexpr bool (*dispatch_chain[])(const oka_message*) = {
    mka_client_dispatch_message, kay_dispatch_message,        oxmsi_dispatch_message, oxpcsi_dispatch_message,
    tavu_pm_dispatch_message,    mka_server_dispatch_message, ks_dispatch_message,
};

bool dispatch(const oka_message* message) {
    for (auto* dispatch_message : dispatch_chain) {
        if (dispatch_message(message))
            return true;
    }
    return false;
}

bool initialize_platform() {
    if (!initialize_oxhal()) {
        TRACE_ERROR("TAVU: OXHAL library initialization failed");
        return false;
    }
    if (!oka_timer_service_init()) {
        TRACE_ERROR("TAVU: OKA timer initialization failed");
        return false;
    }
    int result = oka_init(oka_platform_word, 0, 0, 0, 0);
    if (result != 0) {
        TRACE_ERROR("TAVU: OKA initialization failed: %i", result);
        return false;
    }
    // Without its root mailbox the daemon would receive no messages, not even of its own timers. The usual
    // reason is that another daemon runs in this unit.
    self.root_mailbox = oka_create_mailbox(root_mailbox_name, 0);
    if (self.root_mailbox == OKA_MAILBOX_NONE) {
        TRACE_ERROR("TAVU: Could not create root mailbox '%s'", root_mailbox_name);
        return false;
    }
    return true;
}

bool initialize_modules() {
    if (!oxmsi_server_init(self.root_mailbox, &oxmsi_callback_table)) {
        TRACE_ERROR("TAVU: OXMSI server initialization failed");
        return false;
    }
    if (!oxpcsi_helper_init(self.root_mailbox, OXPCSI_PORT_ROLE_IDL, &oxpcsi_callback_table)) {
        TRACE_ERROR("TAVU: OXPCSI helper initialization failed");
        return false;
    }
    if (!tavu_pm_init(self.root_mailbox)) {
        TRACE_ERROR("TAVU: TAVU port manager initialization failed");
        return false;
    }
    const key_server_callbacks callbacks = {generate_sak};
    if (!key_server_init(self.root_mailbox, &callbacks)) {
        TRACE_ERROR("TAVU: MKA key server initialization failed");
        return false;
    }
    if (!key_server_start()) {
        TRACE_ERROR("TAVU: MKA key server start failed");
        return false;
    }
    return true;
}

} // namespace

bool tavu_main_init() {
    TAVU_FUNCTION();
    TRACE("TAVU: Initializing");
    if (!is_in_state(self.state, TAVU_MAIN_STATE_UNINITIALIZED, state_to_str))
        return false;
    if (!initialize_platform() || !initialize_modules())
        return false;
    change_state(TAVU_MAIN_STATE_INITIALIZED);
    TRACE("TAVU: Initialized successfully");
    return true;
}

bool tavu_main_start() {
    TAVU_FUNCTION();
    TRACE("TAVU: Starting");
    if (!is_in_state(self.state, TAVU_MAIN_STATE_INITIALIZED, state_to_str))
        return false;
    if (!oxmsi_server_start()) {
        TRACE_ERROR("TAVU: Could not start OXMSI server");
        return false;
    }
    if (!oxpcsi_helper_start(oxpcsi_client_mailbox_name)) {
        TRACE_ERROR("TAVU: Could not start OXPCSI helper");
        return false;
    }
    if (!tavu_pm_start()) {
        TRACE_ERROR("TAVU: Could not start TAVU port manager");
        return false;
    }
    change_state(TAVU_MAIN_STATE_STARTED);
    TRACE("TAVU: Started successfully");
    return true;
}

void route_message(oka_message* message) {
    if (oka_size(message) < sizeof message->number) {
        TRACE_ERROR("TAVU: OKA message is too short: actual: %u bytes, expected at least %u bytes",
                    oka_size(message), static_cast<unsigned>(sizeof message->number));
    } else {
        if (oka_receiver(message) == self.root_mailbox)
            TRACE("TAVU: OKA message %u is received on '%s'", message->number, root_mailbox_name);
        if (!dispatch(message))
            TRACE_ERROR("TAVU: Unhandled message, message id: %u", message->number);
    }
    oka_free(&message);
}

void event_loop() {
    TAVU_FUNCTION();
    TRACE("TAVU: Entering event loop");
    while (oka_message* message = oka_receive(nullptr, OKA_WAIT_FOREVER, OKA_ANY_SENDER))
        route_message(message);
    TRACE_ERROR("TAVU: OKA message is NULL");
}

void tavu_main_terminate() {
    TAVU_FUNCTION();
    TRACE_ERROR("TAVU: Fatal error occured. Exiting with error code: %i", exit_code);
    if (!oka_timer_service_stop())
        TRACE_ERROR("TAVU: Could not stop OKA timer service");
    if (self.root_mailbox != OKA_MAILBOX_NONE)
        oka_delete_mailbox(self.root_mailbox);
    oka_exit();
    exit(exit_code);
}

void tavu_main() {
    int result = zeb_init();
    if (result == 0 || result == 4)
        zeb_register_thread_name(thread_name);
    else
        TRACE_ERROR("TAVU: ZEB initialization failed: %i, provider name will be empty in traces", result);

    if (!tavu_main_init()) {
        TRACE_ERROR("TAVU: Initialization failed, exiting");
        clear_and_terminate();
    }
    if (!tavu_main_start()) {
        TRACE_ERROR("TAVU: Starting up failed, exiting");
        clear_and_terminate();
    }
    event_loop();
    TRACE_ERROR("TAVU: Event loop left (should never happen), exiting");
    tavu_main_terminate();
}

tavu_main_state get_tavu_main_state() {
    TAVU_FUNCTION();
    return self.state;
}

} // namespace tavu
