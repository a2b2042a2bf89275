#include "protocols/oxpcsi_messages.h"

#include "base/enum_text.h"

namespace tavu {

namespace {

constexpr enum_text message_names[] = {OXPCSI_MESSAGES(MESSAGE_NUMBER_TEXT)};

constexpr enum_text procedure_names[] = {
    ENUM_TEXT(PROC_REF_INITIATE),
    ENUM_TEXT(PROC_REF_GET_PORTS),
    ENUM_TEXT(PROC_REF_SUBSCRIBE),
};

constexpr enum_text reject_names[] = {
    ENUM_TEXT(OXPCSI_REJ_INTERNAL_REASON),
    ENUM_TEXT(OXPCSI_REJ_SERVICE_INVALID_PV),
    ENUM_TEXT(OXPCSI_REJ_INVALID_PORTREF),
    ENUM_TEXT(OXPCSI_REJ_INVALID_PORTNAME),
    ENUM_TEXT(OXPCSI_REJ_INVALID_PORTSTATE),
    ENUM_TEXT(OXPCSI_REJ_INVALID_PORTROLE),
    ENUM_TEXT(OXPCSI_REJ_PORT_RESERVED),
    ENUM_TEXT(OXPCSI_REJ_PORT_NOT_RESERVED),
    ENUM_TEXT(OXPCSI_REJ_SERVICE_ALREADY_INITIATED),
    ENUM_TEXT(OXPCSI_REJ_PORT_NOT_MOVED_TO_NAMESPACE),
};

// A set of bits rather than one of several values, so the row holds the text itself.
constexpr enum_text role_names[] = {
    {0, "UNINITIALIZED"}, {1, "IDL"},    {2, "E5"},          {3, "IDL, E5"}, {4, "C2"},
    {5, "IDL, C2"},       {6, "E5, C2"}, {7, "IDL, E5, C2"},
};

constexpr enum_text admin_state_names[] = {
    ENUM_TEXT(OXPCSI_PORT_ADM_STATE_LOCKED),
    ENUM_TEXT(OXPCSI_PORT_ADM_STATE_UNLOCKED),
    ENUM_TEXT(UNINITIALIZED_PORT_ADMIN_STATE),
};

constexpr enum_text oper_state_names[] = {
    ENUM_TEXT(OXPCSI_PORT_OPER_STATE_DISABLED),
    ENUM_TEXT(OXPCSI_PORT_OPER_STATE_ENABLED),
    ENUM_TEXT(UNINITIALIZED_PORT_OPER_STATE),
};

constexpr enum_text module_names[] = {
    ENUM_TEXT(OXPCSI_MODULE_NOT_PRESENT),
    ENUM_TEXT(OXPCSI_MODULE_PRESENT),
};

} // namespace

const char* oxpcsi_msg_no_to_str(uint32_t number) {
    return enum_to_str(message_names, number);
}
const char* procref_to_str(uint32_t reference) {
    return enum_to_str(procedure_names, reference);
}
const char* oxpcsi_reject_reason_to_str(uint32_t reason) {
    return enum_to_str(reject_names, reason);
}
const char* port_role_to_str(uint32_t role) {
    return enum_to_str(role_names, role);
}
const char* port_admin_state_to_str(uint32_t state) {
    return enum_to_str(admin_state_names, state);
}
const char* port_oper_state_to_str(uint32_t state) {
    return enum_to_str(oper_state_names, state);
}
const char* port_mode_present_to_str(uint32_t present) {
    return enum_to_str(module_names, present);
}

} // namespace tavu
