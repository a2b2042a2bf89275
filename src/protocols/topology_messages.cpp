#include "protocols/topology_messages.h"

#include <cstring>

#include "base/enum_text.h"

namespace services {

namespace {

using namespace tavu;

struct word {
    uint32_t value;
    const char* text;
};

constexpr enum_text message_names[] = {TOPOLOGY_MESSAGES(MESSAGE_NUMBER_TEXT)};

constexpr word link_status_table[] = {
    {OXMSI_LTM_LINK_STATUS_UNINITIALIZED, "uninitialized"},
    {OXMSI_LTM_LINK_STATUS_NOT_CONNECTED, "not-connected"},
    {OXMSI_LTM_LINK_STATUS_UP, "up"},
    {OXMSI_LTM_LINK_STATUS_DOWN, "down"},
    {OXMSI_LTM_LINK_STATUS_NONEXISTING_PORT, "nonexisting-port"},
    {OXMSI_LTM_LINK_STATUS_NONEXISTING_REMOTE_PORT, "nonexisting-remote-port"},
    {OXMSI_LTM_LINK_STATUS_NONEXISTING_MPID, "nonexisting-mpid"},
    {OXMSI_LTM_LINK_STATUS_WRONG_REMOTE_PORT, "wrong-remote-port"},
    {OXMSI_LTM_LINK_STATUS_WRONG_REMOTE_MPID, "wrong-remote-mpid"},
    {OXMSI_LTM_LINK_STATUS_BAD_CONNECTIVITY, "bad-connectivity"},
    {OXMSI_LTM_LINK_STATUS_MACSEC_PENDING, "macsec-pending"},
    {OXMSI_LTM_LINK_STATUS_AUTHENTICATION_FAILED, "authentication-failed"},
};

constexpr word du_type_table[] = {{OXMSI_DU_TYPE_2, "type-2"}, {OXMSI_DU_TYPE_3, "type-3"}};

constexpr word phase_table[] = {
    {TOPOLOGY_PHASE_OFF, "off"},
    {TOPOLOGY_PHASE_NO_DAEMON, "no-daemon"},
    {TOPOLOGY_PHASE_STOPPING, "stopping"},
    {TOPOLOGY_PHASE_PAUSED, "paused"},
    {TOPOLOGY_PHASE_DOWN, "down"},
    {TOPOLOGY_PHASE_STARTING, "starting"},
    {TOPOLOGY_PHASE_PORT_DOWN, "port-down"},
    {TOPOLOGY_PHASE_JOINING, "joining"},
    {TOPOLOGY_PHASE_ENCRYPTED, "encrypted"},
};

constexpr word fault_table[] = {
    {TOPOLOGY_FAULT_NONE, "none"},
    {TOPOLOGY_FAULT_NO_DAEMON, "no-daemon"},
    {TOPOLOGY_FAULT_REFUSED, "refused"},
    {TOPOLOGY_FAULT_PORT_DOWN, "port-down"},
    {TOPOLOGY_FAULT_FAILED, "failed"},
    {TOPOLOGY_FAULT_BROKEN, "broken"},
    {TOPOLOGY_FAULT_NO_KEYS, "no-keys"},
    {TOPOLOGY_FAULT_NO_PEER, "no-peer"},
    {TOPOLOGY_FAULT_PEER_REFUSES, "peer-refuses"},
    {TOPOLOGY_FAULT_SILENT_PEER, "silent-peer"},
    {TOPOLOGY_FAULT_MPIDS, "mpids"},
    {TOPOLOGY_FAULT_OFF, "off"},
    {TOPOLOGY_FAULT_FLAPPING, "flapping"},
    {TOPOLOGY_FAULT_STALLED, "stalled"},
    {TOPOLOGY_FAULT_UNPROTECTED, "unprotected"},
    {TOPOLOGY_FAULT_KEYS_DIFFER, "keys-differ"},
    {TOPOLOGY_FAULT_KEYS_TOO_OLD, "keys-too-old"},
    {TOPOLOGY_FAULT_FRAMES_DROPPED, "frames-dropped"},
};

constexpr word request_table[] = {
    {0, "nothing yet"},
    {OXMSI_IDL_TOPOLOGY_PUBLISH_LINK_ADDED_REQ, "link added"},
    {OXMSI_IDL_TOPOLOGY_PUBLISH_LINK_ADDED_CFM, "link added: confirmed"},
    {OXMSI_IDL_TOPOLOGY_PUBLISH_LINK_ADDED_REJ, "link added: refused"},
    {OXMSI_IDL_TOPOLOGY_PUBLISH_LINK_UPDATED_REQ, "link updated"},
    {OXMSI_IDL_TOPOLOGY_PUBLISH_LINK_UPDATED_CFM, "link updated: confirmed"},
    {OXMSI_IDL_TOPOLOGY_PUBLISH_LINK_UPDATED_REJ, "link updated: refused"},
    {OXMSI_IDL_TOPOLOGY_PUBLISH_LINK_DELETED_REQ, "link deleted"},
    {OXMSI_IDL_TOPOLOGY_PUBLISH_LINK_DELETED_CFM, "link deleted: confirmed"},
    {OXMSI_IDL_TOPOLOGY_PUBLISH_LINK_DELETED_REJ, "link deleted: refused"},
    {OXMSI_PORT_STATE_CHANGE_SUBSCRIBE_REQ, "subscription"},
    {OXMSI_PORT_STATE_CHANGE_SUBSCRIBE_REJ, "subscription: refused"},
};

constexpr word reject_table[] = {
    {0, ""},
    {OXMSI_REJ_CLIENT_ALREADY_EXIST, "this connection exists already"},
    {OXMSI_REJ_UNSUPPORTED_PROTOCOL_VERSION, "qel-tavu does not speak this version of the protocol"},
    {OXMSI_REJ_MAX_NUMBER_OF_CLIENTS_REACHED, "qel-tavu has 32 clients already"},
    {OXMSI_REJ_INTERNAL_ERROR, "qel-tavu is not ready, or out of memory"},
    {OXMSI_REJ_PORT_NAME_TOO_LONG, "the port name is too long"},
    {OXMSI_REJ_INVALID_DU_TYPE, "qel-tavu does not know this kind of remote unit"},
    {OXMSI_REJ_INVALID_LINK_STATUS, "qel-tavu does not know this link status"},
    {OXMSI_REJ_SUBSCRIPTION_ALREADY_EXIST, "the port is subscribed to already"},
    {OXMSI_REJ_MAX_NUMBER_OF_SUBSCRIBERS_REACHED, "qel-tavu has 32 subscriptions already"},
    {OXMSI_REJ_UNKNOWN_PORT_NAME, "qel-tavu has no port of this name; see the ports given to oxpcsi-server"},
    {OXMSI_REJ_MAX_NUMBER_OF_LINKS_REACHED, "the port has another link, published by somebody else"},
    {OXMSI_REJ_LINK_ALREADY_EXISTS, "the link exists already"},
    {OXMSI_REJ_LINK_NOT_FOUND, "the port has no such link"},
};

template<size_t N>
const char* text_of(const word (&table)[N], uint32_t value) {
    for (const word& row : table) {
        if (row.value == value)
            return row.text;
    }
    return "unknown";
}

template<size_t N>
bool value_of(const word (&table)[N], const char* written, uint32_t& value) {
    for (const word& row : table) {
        if (strcmp(row.text, written) == 0) {
            value = row.value;
            return true;
        }
    }
    return false;
}

} // namespace

const char* topology_msg_no_to_str(uint32_t number) {
    return enum_to_str(message_names, number);
}

const char* link_status_to_word(uint32_t status) {
    return text_of(link_status_table, status);
}
bool link_status_from_word(const char* written, uint32_t& status) {
    return value_of(link_status_table, written, status);
}
const char* du_type_to_word(uint32_t du_type) {
    return text_of(du_type_table, du_type);
}
bool du_type_from_word(const char* written, uint32_t& du_type) {
    return value_of(du_type_table, written, du_type);
}
const char* link_status_words() {
    return "up, down, not-connected, macsec-pending, bad-connectivity, authentication-failed, "
           "nonexisting-port, nonexisting-remote-port, nonexisting-mpid, wrong-remote-port, "
           "wrong-remote-mpid or uninitialized";
}

const char* phase_to_word(uint32_t phase) {
    return text_of(phase_table, phase);
}
const char* fault_to_word(uint32_t fault) {
    return text_of(fault_table, fault);
}

const char* request_in_words(uint32_t number) {
    return text_of(request_table, number);
}
const char* reject_reason_in_words(uint32_t reason) {
    return text_of(reject_table, reason);
}

} // namespace services
