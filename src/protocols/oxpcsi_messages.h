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
    TAVU_FIELD(0, header, message_header);
    TAVU_FIELD(12, protocol_versions, array_of<be32, 3>);
};
TAVU_WIRE_LAYOUT(oxpcsi_init_service_req, 24);

struct oxpcsi_init_service_cfm {
    TAVU_FIELD(0, header, message_header); // connection reference: the one for the client's later requests
    TAVU_FIELD(12, pv_selected, be32);
};
TAVU_WIRE_LAYOUT(oxpcsi_init_service_cfm, 16);

// Every reject.
struct oxpcsi_rej {
    TAVU_FIELD(0, header, message_header);
    TAVU_FIELD(12, reason, be32); // oxpcsi_reject_reason
};
TAVU_WIRE_LAYOUT(oxpcsi_rej, 16);

// OXPCSI_GET_ETH_PORT_SUPPORT_REQ is a header alone.

struct oxpcsi_port_entry {
    TAVU_FIELD(0, port_role, be32);
    TAVU_FIELD(4, votk_id, be32); // the platform's hardware port identifier
    TAVU_FIELD(8, mac_address, array_of<uint8_t, 6>);
    TAVU_FIELD(14, port, port_name);
    TAVU_FIELD(30, if_name, port_name); // the port's network interface
    TAVU_FIELD(46, unused, array_of<uint8_t, 2>);
};
TAVU_WIRE_LAYOUT(oxpcsi_port_entry, 48);

// no_ports entries, of which the first is declared, back to back. The message has room for one at least.
struct oxpcsi_get_eth_port_support_cfm {
    TAVU_FIELD(0, header, message_header);
    TAVU_FIELD(12, no_ports, be32);
    TAVU_FIELD(16, first_entry, oxpcsi_port_entry);
};
TAVU_WIRE_LAYOUT(oxpcsi_get_eth_port_support_cfm, 64);

struct oxpcsi_subscribe_eth_port_status_req {
    TAVU_FIELD(0, header, message_header);
    TAVU_FIELD(12, port_role, be32);
    TAVU_FIELD(16, port, port_name); // empty: all ports of that role
};
TAVU_WIRE_LAYOUT(oxpcsi_subscribe_eth_port_status_req, 32);

struct oxpcsi_subscribe_eth_port_status_cfm {
    TAVU_FIELD(0, header, message_header);
    TAVU_FIELD(12, sub_ref, be32);
};
TAVU_WIRE_LAYOUT(oxpcsi_subscribe_eth_port_status_cfm, 16);

struct oxpcsi_eth_port_status2_ind {
    TAVU_FIELD(0, header, message_header);
    TAVU_FIELD(12, port_adm_state, be32);
    TAVU_FIELD(16, port_oper_state, be32);
    TAVU_FIELD(20, port_mod_present, be32);
    TAVU_FIELD(24, line_rate, be32);
    TAVU_FIELD(28, port, port_name);
    TAVU_FIELD(44, name_space, namespace_name); // the network namespace that the interface is in
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
