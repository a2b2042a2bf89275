// The daemon's view of the node's Ethernet ports. It finds and supervises the port control server
// "oxpcsi-server", fetches the ports of one role, subscribes to their status and keeps one record a port.
// What the ports are used for is not its business.
#pragma once

#include "base/wire.h"
#include "protocols/oxpcsi_messages.h"

namespace tavu {

enum oxpcsi_helper_state {
    OXPCSI_HELPER_STATE_UNINITIALIZED = 0,
    OXPCSI_HELPER_STATE_INITIAL = 1,     // initialised or stopped; no mailbox
    OXPCSI_HELPER_STATE_LOCATING = 2,    // waiting for the server to exist
    OXPCSI_HELPER_STATE_INITIATING = 3,  // service asked for
    OXPCSI_HELPER_STATE_INITIATED = 4,   // ports asked for
    OXPCSI_HELPER_STATE_SUBSCRIBING = 5, // subscription asked for
    OXPCSI_HELPER_STATE_READY = 6,       // port list complete, status indications flow
};

// One port. States are 666, "not known", until the first status indication.
struct oxpcsi_port_data {
    uint32_t port_role;
    uint32_t admin_state;
    uint32_t oper_state;
    uint32_t votk_id;
    uint32_t module_present;
    uint32_t line_rate;
    uint8_t mac_address[6];
    port_name port;
    tavu::port_name if_name;
    namespace_name name_space;
};

// Called from inside oxpcsi_dispatch_message, after all changes of the helper's own are made, so that a
// callback may stop and restart it. In this order; every entry must be there.
struct oxpcsi_callbacks {
    void (*start_failed)();                           // rejected; the helper is INITIAL again
    void (*server_up)();                              // READY
    void (*server_down)();                            // the server is gone; the helper is INITIAL again
    void (*port_state_change)(const char* port_name); // a status indication came, changed or not
};

// `port_role_filter` is a set of oxpcsi_port_role bits. In UNINITIALIZED only.
[[nodiscard]] bool oxpcsi_helper_init(oka_mailbox owner, uint32_t port_role_filter,
                                      const oxpcsi_callbacks* callbacks);
// Clones the own mailbox under `mailbox_name` and begins to look for the server. In INITIAL only.
[[nodiscard]] bool oxpcsi_helper_start(const char* mailbox_name);
// Forgets server and ports; works in every state.
bool oxpcsi_helper_stop();
// True for the protocol's replies, indications and the helper's own messages on its own mailbox.
[[nodiscard]] bool oxpcsi_dispatch_message(const oka_message* message);

// The ports, newest first. The first of them, or null; valid until the next stop.
oxpcsi_port_data* oxpcsi_get_supported_ports_list();
// The one behind `port` in that list, or null.
oxpcsi_port_data* oxpcsi_get_next_supported_port(oxpcsi_port_data* port);
// Copies the port's whole record; false for an unknown name.
[[nodiscard]] bool oxpcsi_get_port_data(const char* port_name, oxpcsi_port_data& output);
// The port's interface name, or null for an unknown port; valid until the next stop.
const char* oxpcsi_get_if_name(const char* port_name);
oxpcsi_helper_state get_oxpcsi_helper_state();

} // namespace tavu
