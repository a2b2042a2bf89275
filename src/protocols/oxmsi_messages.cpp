#include "protocols/oxmsi_messages.h"

#include "base/enum_text.h"

namespace tavu {

namespace {

constexpr enum_text message_names[] = {OXMSI_MESSAGES(MESSAGE_NUMBER_TEXT)};

constexpr enum_text error_names[] = {
    ENUM_TEXT(OXMSI_REJ_CLIENT_ALREADY_EXIST),
    ENUM_TEXT(OXMSI_REJ_UNSUPPORTED_PROTOCOL_VERSION),
    ENUM_TEXT(OXMSI_REJ_MAX_NUMBER_OF_CLIENTS_REACHED),
    ENUM_TEXT(OXMSI_REJ_INTERNAL_ERROR),
    ENUM_TEXT(OXMSI_REJ_PORT_NAME_TOO_LONG),
    ENUM_TEXT(OXMSI_REJ_INVALID_DU_TYPE),
    ENUM_TEXT(OXMSI_REJ_INVALID_LINK_STATUS),
    ENUM_TEXT(OXMSI_REJ_SUBSCRIPTION_ALREADY_EXIST),
    ENUM_TEXT(OXMSI_REJ_MAX_NUMBER_OF_SUBSCRIBERS_REACHED),
    ENUM_TEXT(OXMSI_REJ_UNKNOWN_PORT_NAME),
    ENUM_TEXT(OXMSI_REJ_MAX_NUMBER_OF_LINKS_REACHED),
    ENUM_TEXT(OXMSI_REJ_LINK_ALREADY_EXISTS),
    ENUM_TEXT(OXMSI_REJ_LINK_NOT_FOUND),
};

constexpr enum_text oper_state_names[] = {
    ENUM_TEXT(OXMSI_PORT_OPER_STATE_UNINITIALIZED),
    ENUM_TEXT(OXMSI_PORT_OPER_STATE_DISABLED),
    ENUM_TEXT(OXMSI_PORT_OPER_STATE_ENABLED),
};

constexpr enum_text encryption_state_names[] = {
    ENUM_TEXT(OXMSI_PORT_ENCRYPTION_STATE_UNINITIALIZED),
    ENUM_TEXT(OXMSI_PORT_ENCRYPTION_STATE_DISABLED),
    ENUM_TEXT(OXMSI_PORT_ENCRYPTION_STATE_ENABLED),
};

constexpr enum_text link_status_names[] = {
    ENUM_TEXT(OXMSI_LTM_LINK_STATUS_UNINITIALIZED),
    ENUM_TEXT(OXMSI_LTM_LINK_STATUS_NOT_CONNECTED),
    ENUM_TEXT(OXMSI_LTM_LINK_STATUS_UP),
    ENUM_TEXT(OXMSI_LTM_LINK_STATUS_DOWN),
    ENUM_TEXT(OXMSI_LTM_LINK_STATUS_NONEXISTING_PORT),
    ENUM_TEXT(OXMSI_LTM_LINK_STATUS_NONEXISTING_REMOTE_PORT),
    ENUM_TEXT(OXMSI_LTM_LINK_STATUS_NONEXISTING_MPID),
    ENUM_TEXT(OXMSI_LTM_LINK_STATUS_WRONG_REMOTE_PORT),
    ENUM_TEXT(OXMSI_LTM_LINK_STATUS_WRONG_REMOTE_MPID),
    ENUM_TEXT(OXMSI_LTM_LINK_STATUS_BAD_CONNECTIVITY),
    ENUM_TEXT(OXMSI_LTM_LINK_STATUS_MACSEC_PENDING),
    ENUM_TEXT(OXMSI_LTM_LINK_STATUS_AUTHENTICATION_FAILED),
};

} // namespace

const char* oxmsi_msg_no_to_str(uint32_t number) {
    return enum_to_str(message_names, number);
}
const char* oxmsi_error_to_str(uint32_t reason) {
    return enum_to_str(error_names, reason);
}
const char* port_macsec_oper_state_to_str(uint32_t state) {
    return enum_to_str(oper_state_names, state);
}
const char* port_macsec_encryption_state_to_str(uint32_t state) {
    return enum_to_str(encryption_state_names, state);
}
const char* tavu_link_status_to_str(uint32_t status) {
    return enum_to_str(link_status_names, status);
}

} // namespace tavu
