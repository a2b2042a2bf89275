#include "protocols/mka_messages.h"

#include "base/enum_text.h"
#include "base/trace.h"

namespace tavu {

namespace {

constexpr enum_text message_names[] = {
    MKA_MESSAGES(MESSAGE_NUMBER_TEXT) //
    ENUM_TEXT(KEYSRV_MSG_TIMEOUT_IND),
    ENUM_TEXT(MKA_CLIENT_DOWN_IND),
    ENUM_TEXT(MKA_SERVER_DOWN_IND),
};

constexpr enum_text own_timer_names[] = {
    ENUM_TEXT(MKA_CLIENT_HEARTBEAT_TIMEOUT_IND),
    ENUM_TEXT(MKA_SERVER_HEARTBEAT_TIMEOUT_IND),
    ENUM_TEXT(KEYSRV_KEY_REFRESH_TIMER_IND),
};

constexpr enum_text error_names[] = {
    ENUM_TEXT(MKA_REJ_UNSUPPORTED_PROTOCOL_VERSION),
    ENUM_TEXT(MKA_REJ_MAX_NUMBER_OF_RX_SC_REACHED),
    ENUM_TEXT(MKA_REJ_MAX_NUMBER_OF_TX_SA_REACHED),
    ENUM_TEXT(MKA_REJ_MAX_NUMBER_OF_RX_SA_REACHED),
    ENUM_TEXT(MKA_REJ_CA_NOT_FOUND),
    ENUM_TEXT(MKA_REJ_CLIENT_ALREADY_EXIST),
    ENUM_TEXT(MKA_REJ_MAX_NUMBER_OF_CLIENTS_REACHED),
    ENUM_TEXT(MKA_REJ_CLIENT_NOT_EXIST),
    ENUM_TEXT(MKA_REJ_ALREADY_JOINED),
    ENUM_TEXT(MKA_REJ_INSUFFICIENT_CA_CAPABILITIES),
    ENUM_TEXT(MKA_REJ_INTERNAL_ERROR),
    ENUM_TEXT(MKA_REJ_INVALID_NUM_OF_RX_SC),
    ENUM_TEXT(MKA_REJ_INVALID_NUM_OF_RX_SA),
    ENUM_TEXT(MKA_REJ_INVALID_REPLAY_PROTECTION_SUPPORTED),
    ENUM_TEXT(MKA_REJ_INVALID_CONFIDENTIALITY_SUPPORTED),
    ENUM_TEXT(MKA_REJ_INVALID_CONFIDENTIALITY_OFFSET_SUPPORTED),
    ENUM_TEXT(MKA_REJ_INVALID_SCI),
    ENUM_TEXT(MKA_REJ_SCI_ALREADY_USED),
};

constexpr enum_text proc_ref_names[] = {
    ENUM_TEXT(PROC_REF_LEAVE_CA),        ENUM_TEXT(PROC_REF_PEER_DOWN),    ENUM_TEXT(PROC_REF_RX_SC_CREATE),
    ENUM_TEXT(PROC_REF_TX_SA_CREATE),    ENUM_TEXT(PROC_REF_RX_SA_CREATE), ENUM_TEXT(PROC_REF_PROTECT_FRAMES),
    ENUM_TEXT(PROC_REF_MSG_TRANSACTION),
};

constexpr enum_text standard_names[] = {
    ENUM_TEXT(MKA_STANDARD_IEEE_802_1AE_2006),
    ENUM_TEXT(MKA_STANDARD_IEEE_802_1AEbn_2011),
    ENUM_TEXT(MKA_STANDARD_IEEE_802_1AEbw_2013),
    ENUM_TEXT(MKA_STANDARD_IEEE_802_1AEcg_2017),
};

#define CIPHER_NAME(number, name, key_length, supported) ENUM_TEXT(MKA_CIPHER_##name),
constexpr enum_text cipher_names[] = {ENUM_TEXT(MKA_CIPHER_NULL), OXHAL_CIPHER_SUITES(CIPHER_NAME)};
#undef CIPHER_NAME

#define CIPHER_SUITE(number, name, key_length, supported) {MKA_CIPHER_##name, key_length, supported},
constexpr cipher_suite cipher_suites[] = {OXHAL_CIPHER_SUITES(CIPHER_SUITE)};
#undef CIPHER_SUITE

const uint8_t* octets_of(const oka_message* message) {
    return reinterpret_cast<const uint8_t*>(message);
}

const mka_information_element& element_at(const oka_message* message, uint32_t offset) {
    return *reinterpret_cast<const mka_information_element*>(octets_of(message) + offset);
}

} // namespace

const char* mka_msg_no_to_str(uint32_t number, uint32_t own_timer) {
    return own_timer != 0 && number == own_timer ? enum_to_str(own_timer_names, number)
                                                 : enum_to_str(message_names, number);
}

const char* mka_error_to_str(uint32_t reason) {
    return enum_to_str(error_names, reason);
}
const char* standard_to_str(uint32_t standard) {
    return enum_to_str(standard_names, standard);
}
const cipher_suite* find_cipher_suite(uint32_t value) {
    for (const cipher_suite& suite : cipher_suites) {
        if (suite.value == value)
            return &suite;
    }
    return nullptr;
}
const char* cipher_to_str(uint32_t cipher) {
    return enum_to_str(cipher_names, cipher);
}
const char* proc_ref_to_str(uint32_t reference) {
    return enum_to_str(proc_ref_names, reference);
}

bool verify_procedure_reference(const oka_message* message, uint32_t expected) {
    uint32_t actual = as<message_header>(message).procedure_reference;
    if (actual == expected) [[likely]]
        return true;
    TRACE_ERROR("TAVU: Invalid proc_ref value: actual %u, expected %u", actual, expected);
    return false;
}

uint32_t size_with_information_elements(const oka_message* message, uint32_t offset, uint32_t count) {
    uint32_t message_size = oka_size(message);
    uint32_t total = offset;
    for (uint32_t number = 1; number <= count; number++) {
        uint32_t left = message_size - total;
        if (left < sizeof(mka_information_element))
            return total + uint32_t{sizeof(mka_information_element)};
        uint32_t length = element_at(message, total).length;
        total += length;
        TRACE_DETAIL("TAVU: information element %u: length=%u, total length=%u", number, length, total);
        if (length < sizeof(mka_information_element))
            return 0;
        if (length > left)
            return total; // a sum that wraps comes out below what was summed up before
    }
    return total;
}

const mka_802_1ae_2006_capabilities* find_802_1ae_2006_tlv(const oka_message* message, uint32_t offset,
                                                           uint32_t count) {
    for (uint32_t number = 1; number <= count; number++) {
        const mka_information_element& element = element_at(message, offset);
        if (element.type == MKA_STANDARD_IEEE_802_1AE_2006) {
            if (element.length < sizeof(mka_802_1ae_2006_capabilities))
                return nullptr;
            return reinterpret_cast<const mka_802_1ae_2006_capabilities*>(&element);
        }
        offset += element.length;
    }
    return nullptr;
}

} // namespace tavu
