// The MACsec service protocol: through it a topology manager connects, publishes the links of the ports and
// subscribes to their MACsec status. The daemon is the server, published as "oxmsi".
//
// The connection reference is the client's own in the connection request and its reject, the client id that
// the server assigned in the confirm and in every later request, and the client's own again in every later
// answer and indication. Answers echo the procedure reference of their request.
#pragma once

#include "base/wire.h"
#include "protocols/message_numbers.h"

namespace tavu {

constexpr uint32_t oxmsi_protocol_version = 1;

enum oxmsi_reject_reason : uint32_t {
    OXMSI_REJ_CLIENT_ALREADY_EXIST = 1,
    OXMSI_REJ_UNSUPPORTED_PROTOCOL_VERSION = 2,
    OXMSI_REJ_MAX_NUMBER_OF_CLIENTS_REACHED = 3,
    OXMSI_REJ_INTERNAL_ERROR = 4,
    OXMSI_REJ_PORT_NAME_TOO_LONG = 5,
    OXMSI_REJ_INVALID_DU_TYPE = 6,
    OXMSI_REJ_INVALID_LINK_STATUS = 7,
    OXMSI_REJ_SUBSCRIPTION_ALREADY_EXIST = 8,
    OXMSI_REJ_MAX_NUMBER_OF_SUBSCRIBERS_REACHED = 9,
    OXMSI_REJ_UNKNOWN_PORT_NAME = 10,
    OXMSI_REJ_MAX_NUMBER_OF_LINKS_REACHED = 11,
    OXMSI_REJ_LINK_ALREADY_EXISTS = 12,
    OXMSI_REJ_LINK_NOT_FOUND = 13,
};

// Of the port status: the wire's -1, "not known", is never sent by the server.
enum oxmsi_port_oper_state : uint32_t {
    OXMSI_PORT_OPER_STATE_UNINITIALIZED = 0xffffffff,
    OXMSI_PORT_OPER_STATE_DISABLED = 0,
    OXMSI_PORT_OPER_STATE_ENABLED = 1,
};

enum oxmsi_port_encryption_state : uint32_t {
    OXMSI_PORT_ENCRYPTION_STATE_UNINITIALIZED = 0xffffffff,
    OXMSI_PORT_ENCRYPTION_STATE_DISABLED = 0,
    OXMSI_PORT_ENCRYPTION_STATE_ENABLED = 1,
};

// What the topology manager knows of a link. Only UP and MACSEC_PENDING let a port be secured.
enum oxmsi_ltm_link_status : uint32_t {
    OXMSI_LTM_LINK_STATUS_UNINITIALIZED = 0,
    OXMSI_LTM_LINK_STATUS_NOT_CONNECTED = 1,
    OXMSI_LTM_LINK_STATUS_UP = 2,
    OXMSI_LTM_LINK_STATUS_DOWN = 3,
    OXMSI_LTM_LINK_STATUS_NONEXISTING_PORT = 4,
    OXMSI_LTM_LINK_STATUS_NONEXISTING_REMOTE_PORT = 5,
    OXMSI_LTM_LINK_STATUS_NONEXISTING_MPID = 6,
    OXMSI_LTM_LINK_STATUS_WRONG_REMOTE_PORT = 7,
    OXMSI_LTM_LINK_STATUS_WRONG_REMOTE_MPID = 8,
    OXMSI_LTM_LINK_STATUS_BAD_CONNECTIVITY = 9,
    OXMSI_LTM_LINK_STATUS_MACSEC_PENDING = 10,
    OXMSI_LTM_LINK_STATUS_AUTHENTICATION_FAILED = 11,
};

// The kind of unit at the other end: the port stays unauthenticated towards a unit of type 2 and is secured
// towards one of type 3.
enum oxmsi_du_type : uint32_t {
    OXMSI_DU_TYPE_2 = 1,
    OXMSI_DU_TYPE_3 = 2,
};

struct oxmsi_connection_establish_req {
    TAVU_FIELD(0, header, message_header); // connection reference: the client's own
    TAVU_FIELD(12, num_of_protocol_versions, be32);
    TAVU_FIELD(16, first_protocol_version, be32); // the others follow, in order of preference
};
TAVU_WIRE_LAYOUT(oxmsi_connection_establish_req, 20);

struct oxmsi_connection_establish_cfm {
    TAVU_FIELD(0, header, message_header); // connection reference: the client id assigned
    TAVU_FIELD(12, selected_protocol_version, be32);
};
TAVU_WIRE_LAYOUT(oxmsi_connection_establish_cfm, 16);

// Every reject.
struct oxmsi_rej {
    TAVU_FIELD(0, header, message_header);
    TAVU_FIELD(12, reason, be32); // oxmsi_reject_reason
};
TAVU_WIRE_LAYOUT(oxmsi_rej, 16);

struct oxmsi_capabilities_get_cfm {
    TAVU_FIELD(0, header, message_header);
    TAVU_FIELD(12, capabilities, array_of<be32, 3>); // 1, 1 and 8
};
TAVU_WIRE_LAYOUT(oxmsi_capabilities_get_cfm, 24);

// The part that link added and link updated have in common, from the port name on.
struct oxmsi_link {
    TAVU_FIELD(0, port, port_name);
    TAVU_FIELD(16, remote_port, port_name);
    TAVU_FIELD(32, link_id, be32);
    TAVU_FIELD(36, link_word_1, be32); // not interpreted
    TAVU_FIELD(40, remote_mpid, be32);
    TAVU_FIELD(44, link_word_2, be32); // stored, not used
    TAVU_FIELD(48, du_type, be32);     // oxmsi_du_type
    TAVU_FIELD(52, link_status, be32); // oxmsi_ltm_link_status
};
TAVU_WIRE_LAYOUT(oxmsi_link, 56);

using oka_hunt_path = text<64>;

struct oxmsi_link_added_req {
    TAVU_FIELD(0, header, message_header);
    TAVU_FIELD(12, link, oxmsi_link);
    TAVU_FIELD(68, hunt_path, oka_hunt_path);
};
TAVU_WIRE_LAYOUT(oxmsi_link_added_req, 132);

struct oxmsi_link_updated_req {
    TAVU_FIELD(0, header, message_header);
    TAVU_FIELD(12, link, oxmsi_link);
};
TAVU_WIRE_LAYOUT(oxmsi_link_updated_req, 68);

struct oxmsi_link_deleted_req {
    TAVU_FIELD(0, header, message_header);
    TAVU_FIELD(12, port, port_name);
    TAVU_FIELD(28, link_id, be32);
};
TAVU_WIRE_LAYOUT(oxmsi_link_deleted_req, 32);

// The three link confirms, and OXMSI_PORT_STATE_CHANGE_IND.
struct oxmsi_port_status {
    TAVU_FIELD(0, header, message_header);
    TAVU_FIELD(12, port, port_name);
    TAVU_FIELD(28, oper_state, be32);       // oxmsi_port_oper_state
    TAVU_FIELD(32, encryption_state, be32); // oxmsi_port_encryption_state
};
TAVU_WIRE_LAYOUT(oxmsi_port_status, 36);

// Subscribe and unsubscribe.
struct oxmsi_subscription_req {
    TAVU_FIELD(0, header, message_header);
    TAVU_FIELD(12, port, port_name);
};
TAVU_WIRE_LAYOUT(oxmsi_subscription_req, 28);

const char* oxmsi_msg_no_to_str(uint32_t number);
const char* oxmsi_error_to_str(uint32_t reason);
const char* port_macsec_oper_state_to_str(uint32_t state);
const char* port_macsec_encryption_state_to_str(uint32_t state);
const char* tavu_link_status_to_str(uint32_t status);

} // namespace tavu
