// The port control protocol. The daemon is a client of the server found as "oxpcsi-server", which owns the
// node's Ethernet ports.
//
// Every reply and indication carries the client's connection reference, 1; every request after the first
// carries the one that the server gave in OXPCSI_INIT_SERVICE_CFM. The procedure reference names the
// procedure: an indication carries that of the subscription.
#pragma once

#include "base/wire.h"
#include "protocols/message_numbers.h"

namespace tavu {

constexpr uint32_t oxpcsi_protocol_version = 2;
constexpr uint32_t oxpcsi_client_connection_reference = 1;

enum oxpcsi_procedure_reference : uint32_t {
    PROC_REF_INITIATE = 1,
    PROC_REF_GET_PORTS = 2,
    PROC_REF_SUBSCRIBE = 3,
};

enum oxpcsi_reject_reason : uint32_t {
    OXPCSI_REJ_INTERNAL_REASON = 0,
    OXPCSI_REJ_SERVICE_INVALID_PV = 1,
    OXPCSI_REJ_INVALID_PORTREF = 2,
    OXPCSI_REJ_INVALID_PORTNAME = 3,
    OXPCSI_REJ_INVALID_PORTSTATE = 4,
    OXPCSI_REJ_INVALID_PORTROLE = 5,
    OXPCSI_REJ_PORT_RESERVED = 6,
    OXPCSI_REJ_PORT_NOT_RESERVED = 7,
    OXPCSI_REJ_SERVICE_ALREADY_INITIATED = 8,
    OXPCSI_REJ_PORT_NOT_MOVED_TO_NAMESPACE = 9,
};

// A port's role, also called its capability, is a set of these bits.
enum oxpcsi_port_role : uint32_t {
    OXPCSI_PORT_ROLE_IDL = 1,
    OXPCSI_PORT_ROLE_E5 = 2,
    OXPCSI_PORT_ROLE_C2 = 4,
};

// 666 is the client's own "not known yet" and never travels.
enum oxpcsi_port_adm_state : uint32_t {
    OXPCSI_PORT_ADM_STATE_LOCKED = 0,
    OXPCSI_PORT_ADM_STATE_UNLOCKED = 1,
    UNINITIALIZED_PORT_ADMIN_STATE = 666,
};

enum oxpcsi_port_oper_state : uint32_t {
    OXPCSI_PORT_OPER_STATE_DISABLED = 0,
    OXPCSI_PORT_OPER_STATE_ENABLED = 1,
    UNINITIALIZED_PORT_OPER_STATE = 666,
};

enum oxpcsi_module_present : uint32_t {
    OXPCSI_MODULE_NOT_PRESENT = 0,
    OXPCSI_MODULE_PRESENT = 1,
};

using namespace_name = text<256>;

struct oxpcsi_init_service_req {
    message_header header;     //  0
    be32 protocol_versions[3]; // 12
};
TAVU_WIRE_LAYOUT(oxpcsi_init_service_req, 24);

struct oxpcsi_init_service_cfm {
    message_header header; //  0  connection reference: the one for the client's later requests
    be32 pv_selected;      // 12
};
TAVU_WIRE_LAYOUT(oxpcsi_init_service_cfm, 16);

// Every reject.
struct oxpcsi_rej {
    message_header header; //  0
    be32 reason;           // 12  oxpcsi_reject_reason
};
TAVU_WIRE_LAYOUT(oxpcsi_rej, 16);

// OXPCSI_GET_ETH_PORT_SUPPORT_REQ is a header alone.

struct oxpcsi_port_entry {
    be32 port_role;         //  0
    be32 votk_id;           //  4  the platform's hardware port identifier
    uint8_t mac_address[6]; //  8
    port_name port;         // 14
    port_name if_name;      // 30  the port's network interface
    uint8_t unused[2];      // 46
};
TAVU_WIRE_LAYOUT(oxpcsi_port_entry, 48);

// no_ports entries, of which the first is declared, back to back. The message has room for one at least.
struct oxpcsi_get_eth_port_support_cfm {
    message_header header;         //  0
    be32 no_ports;                 // 12
    oxpcsi_port_entry first_entry; // 16
};
TAVU_WIRE_LAYOUT(oxpcsi_get_eth_port_support_cfm, 64);

struct oxpcsi_subscribe_eth_port_status_req {
    message_header header; //  0
    be32 port_role;        // 12
    port_name port;        // 16  empty: all ports of that role
};
TAVU_WIRE_LAYOUT(oxpcsi_subscribe_eth_port_status_req, 32);

struct oxpcsi_subscribe_eth_port_status_cfm {
    message_header header; //  0
    be32 sub_ref;          // 12
};
TAVU_WIRE_LAYOUT(oxpcsi_subscribe_eth_port_status_cfm, 16);

struct oxpcsi_eth_port_status2_ind {
    message_header header;     //  0
    be32 port_adm_state;       // 12
    be32 port_oper_state;      // 16
    be32 port_mod_present;     // 20
    be32 line_rate;            // 24
    port_name port;            // 28
    namespace_name name_space; // 44  the network namespace that the interface is in
};
TAVU_WIRE_LAYOUT(oxpcsi_eth_port_status2_ind, 300);

// The number's name. `oxpcsi_` stands before the texts that other protocols have too.
const char* oxpcsi_msg_no_to_str(uint32_t number);
const char* procref_to_str(uint32_t procedure_reference);
const char* oxpcsi_reject_reason_to_str(uint32_t reason);
const char* port_role_to_str(uint32_t role);
const char* port_admin_state_to_str(uint32_t state);
const char* port_oper_state_to_str(uint32_t state);
const char* port_mode_present_to_str(uint32_t present);

} // namespace tavu
