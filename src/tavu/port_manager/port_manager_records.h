// The port manager's state: a record for each port, the subscribers, and where the module stands. The files
// above it, each built on those before:
//   port_manager_naming    which end hosts the key server, and the names of CA and key server
//   port_manager_reports   what clients are told of their ports
//   port_manager_roles     which role a port takes, how it gets there, and what happens when it fails
//   port_manager_requests  what clients ask for
//   port_manager           life cycle and dispatch
#pragma once

#include "base/record_list.h"
#include "platform/oka_timer.h"
#include "tavu/kay/kay.h"
#include "tavu/port_manager/port_manager.h"

namespace tavu::port_manager {

// Whether a client has reserved the port for an inter-DU link (IDL).
enum user_data_type : uint32_t {
    USER_DATA_NONE = 0,
    USER_DATA_IDL = 1,
};

enum request_type : uint32_t {
    REQUEST_LINK_ADD = 0,
    REQUEST_LINK_UPDATE = 1,
    REQUEST_LINK_DELETE = 2,
};

using key_server_name = text<80>;

struct tavu_pm_data {
    port_name port;
    tavu_pm_state state;
    macsec_role role;
    macsec_encryption_state encryption_state; // as the KaY reported it last
    bool port_valid;                          // the current role is established
    oka_timer_ref retry_timer;                // 0: not running

    user_data_type user_data;
    ca_name ca;
    key_server_name key_server;
    port_name remote_port;
    uint32_t number_of_links; // 0 or 1
    uint32_t link_id;
    uint32_t remote_mpid;
    uint32_t link_word_2; // the clients' own, kept with the link
    uint32_t du_type;     // oxmsi_du_type, or anything else that a client sent
    uint32_t link_status; // oxmsi_ltm_link_status, the same
    oka_hunt_path hunt_path;

    // The link request that waits for the port to settle.
    bool procedure_pending;
    request_type pending_request;
    uint32_t pending_client_id;
    uint32_t pending_procedure_reference;
};

// A client that wants to know the status of a port, and what it knows already.
struct subscriber_record {
    uint32_t client_id;
    port_name port;
    uint32_t procedure_reference; // of the subscription; every indication carries it
    bool status_sent;
    macsec_encryption_state last_sent_encryption_state;
    bool last_sent_port_valid;
};

struct module_data {
    tavu_pm_global_state global_state = TAVU_PM_GLOBAL_STATE_UNINITIALIZED;
    record_list<tavu_pm_data> ports;
    record_list<subscriber_record> subscribers;
    int32_t own_mpid = 0;
};
extern module_data self;

const char* global_state_to_str(tavu_pm_global_state state);
const char* state_to_str(tavu_pm_state state);
const char* user_data_type_to_str(user_data_type type);
const char* request_type_to_str(request_type type);

// The gate of every operation that needs READY.
[[nodiscard]] bool is_ready(const char* operation = __builtin_FUNCTION(), const char* file = __builtin_FILE(),
                            int line = __builtin_LINE());
tavu_pm_data* find_tavu_pm_data(const char* name);
// The same for an event that is lost without its port: traces that at error level.
tavu_pm_data* find_port_or_complain(const char* name);
// The port as the port-control client knows it; false, after an error trace, when it does not.
[[nodiscard]] bool read_port_data(const char* name, oxpcsi_port_data& port_data);
void delete_subscriber(subscriber_record& subscriber);

// The only places where these values change; each traces old and new.
void change_global_state(tavu_pm_global_state state);
void change_state(tavu_pm_data& port, tavu_pm_state state);
void change_macsec_role(tavu_pm_data& port, macsec_role role);
void change_port_valid(tavu_pm_data& port, bool valid);
void change_encryption_state(tavu_pm_data& port, macsec_encryption_state state);
// Reserving a port forgets its link and the request that waited.
void set_user_data_type(tavu_pm_data& port, user_data_type type);

} // namespace tavu::port_manager
