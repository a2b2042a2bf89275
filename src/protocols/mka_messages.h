// The protocol between the KaYs of both ends of a link and the key server of its connectivity association
// (CA). It takes the place of EAPOL-MKA frames: the parties talk over the messaging service, also when both
// are in one daemon.
//
// The connection reference is always the receiver's: the client id that the server allocated in every message
// to the server, the client's own id in every message to the client; MKA_CONNECTION_ESTABLISH_REQ, which is
// sent before there is one, carries the client's. Every answer echoes its request's procedure reference.
#pragma once

#include "base/wire.h"
#include "platform/oxhal_ciphers.h"
#include "protocols/message_numbers.h"

namespace tavu {

constexpr uint32_t mka_protocol_version = 1;
constexpr uint32_t sak_len_max = OXHAL_KEY_SIZE_MAX;

// Procedure references of the client's requests. That of the connection is the client's id plus the base.
constexpr uint32_t mka_client_proc_ref_connection_base = 100;
constexpr uint32_t mka_client_proc_ref_capabilities = 2;
constexpr uint32_t mka_client_proc_ref_join = 3;
constexpr uint32_t mka_client_proc_ref_leave = 4;
constexpr uint32_t mka_client_proc_ref_heartbeat = 5;
constexpr uint32_t mka_server_proc_ref_heartbeat = 1;

// Procedure references of the key server's requests, one a kind.
enum mka_procedure_reference : uint32_t {
    PROC_REF_LEAVE_CA = 100,
    PROC_REF_PEER_DOWN = 101,
    PROC_REF_RX_SC_CREATE = 102,
    PROC_REF_TX_SA_CREATE = 103,
    PROC_REF_RX_SA_CREATE = 104,
    PROC_REF_PROTECT_FRAMES = 105,
    PROC_REF_MSG_TRANSACTION = 106,
};

enum mka_standard : uint32_t {
    MKA_STANDARD_IEEE_802_1AE_2006 = 0,
    MKA_STANDARD_IEEE_802_1AEbn_2011 = 1,
    MKA_STANDARD_IEEE_802_1AEbw_2013 = 2,
    MKA_STANDARD_IEEE_802_1AEcg_2017 = 3,
};

#define MKA_CIPHER_CONSTANT(number, name, key_length, supported) MKA_CIPHER_##name = (number),
enum mka_cipher : uint32_t {
    MKA_CIPHER_NULL = 0,
    OXHAL_CIPHER_SUITES(MKA_CIPHER_CONSTANT) //
};
#undef MKA_CIPHER_CONSTANT

struct cipher_suite {
    mka_cipher value;
    uint32_t sak_len; // in octets
    bool is_supported;
};
// Null for a value that is none; MKA_CIPHER_NULL has no row.
const cipher_suite* find_cipher_suite(uint32_t value);

enum mka_reject_reason : uint32_t {
    MKA_REJ_UNSUPPORTED_PROTOCOL_VERSION = 1,
    MKA_REJ_MAX_NUMBER_OF_RX_SC_REACHED = 2,
    MKA_REJ_MAX_NUMBER_OF_TX_SA_REACHED = 3,
    MKA_REJ_MAX_NUMBER_OF_RX_SA_REACHED = 4,
    MKA_REJ_CA_NOT_FOUND = 5,
    MKA_REJ_CLIENT_ALREADY_EXIST = 6,
    MKA_REJ_MAX_NUMBER_OF_CLIENTS_REACHED = 7,
    MKA_REJ_CLIENT_NOT_EXIST = 8,
    MKA_REJ_ALREADY_JOINED = 9,
    MKA_REJ_INSUFFICIENT_CA_CAPABILITIES = 10,
    MKA_REJ_INTERNAL_ERROR = 11,
    MKA_REJ_INVALID_NUM_OF_RX_SC = 12,
    MKA_REJ_INVALID_NUM_OF_RX_SA = 13,
    MKA_REJ_INVALID_REPLAY_PROTECTION_SUPPORTED = 14,
    MKA_REJ_INVALID_CONFIDENTIALITY_SUPPORTED = 15,
    MKA_REJ_INVALID_CONFIDENTIALITY_OFFSET_SUPPORTED = 16,
    MKA_REJ_INVALID_SCI = 17,
    MKA_REJ_SCI_ALREADY_USED = 18,
};

// Messages without a struct of their own are a message_header alone.

struct mka_connection_establish_req {
    TAVU_FIELD(0, header, message_header);
    TAVU_FIELD(12, num_of_pvs, be32);
    TAVU_FIELD(16, first_protocol_version, be32); // the others follow
};
TAVU_WIRE_LAYOUT(mka_connection_establish_req, 20);

struct mka_connection_establish_cfm {
    TAVU_FIELD(0, header, message_header); // connection reference: the client id that the server allocated
    TAVU_FIELD(12, selected_protocol_version, be32);
};
TAVU_WIRE_LAYOUT(mka_connection_establish_cfm, 16);

// Every REJ and RREJ.
struct mka_rej {
    TAVU_FIELD(0, header, message_header);
    TAVU_FIELD(12, reason, be32); // mka_reject_reason
};
TAVU_WIRE_LAYOUT(mka_rej, 16);

// An information element begins with its type, a mka_standard, and its length in bytes, this head included.
// Elements follow each other without padding.
struct mka_information_element {
    TAVU_FIELD(0, type, be32);
    TAVU_FIELD(4, length, be32);
};
TAVU_WIRE_LAYOUT(mka_information_element, 8);

// What a SecY can do under IEEE 802.1AE-2006: the one element that is produced and looked for.
struct mka_802_1ae_2006_capabilities {
    TAVU_FIELD(0, head, mka_information_element);
    TAVU_FIELD(8, num_of_rx_scs, be32);
    TAVU_FIELD(12, num_of_rx_sas, be32);                    // for each receive channel
    TAVU_FIELD(16, replay_protection_supported, be32);      // 0 or 1
    TAVU_FIELD(20, confidentiality_supported, be32);        // 0 or 1
    TAVU_FIELD(24, confidentiality_offset_supported, be32); // 0 or 1
    TAVU_FIELD(28, additional_ciphers, be32);               // always 0
    TAVU_FIELD(32, reserved, array_of<uint8_t, 8>);
};
TAVU_WIRE_LAYOUT(mka_802_1ae_2006_capabilities, 40);

// The information elements follow. Without any, eight zero bytes do.
struct mka_capabilities_get_cfm {
    TAVU_FIELD(0, header, message_header);
    TAVU_FIELD(12, num_of_information_elements, be32);
};
TAVU_WIRE_LAYOUT(mka_capabilities_get_cfm, 16);

struct mka_join_ca_req {
    TAVU_FIELD(0, header, message_header);
    TAVU_FIELD(12, ca, ca_name);
    TAVU_FIELD(76, port_speed, be32); // the port's line rate
    TAVU_FIELD(80, num_of_information_elements, be32);
};
TAVU_WIRE_LAYOUT(mka_join_ca_req, 84);

constexpr uint32_t mka_empty_information_elements_size = 8;

struct mka_join_ca_cfm {
    TAVU_FIELD(0, header, message_header);
    TAVU_FIELD(12, standard, be32); // mka_standard of the CA
};
TAVU_WIRE_LAYOUT(mka_join_ca_cfm, 16);

// MKA_LEAVE_CA_REQ and MKA_LEAVE_CA_RREQ.
struct mka_leave_ca_req {
    TAVU_FIELD(0, header, message_header);
    TAVU_FIELD(12, ca, ca_name);
};
TAVU_WIRE_LAYOUT(mka_leave_ca_req, 76);

// MKA_CREATE_TX_SC_REQ (the SCI that the member will transmit with) and MKA_CREATE_RX_SC_RREQ (the peer's,
// whose frames the channel accepts).
struct mka_create_sc_req {
    TAVU_FIELD(0, header, message_header);
    TAVU_FIELD(12, ca, ca_name);
    TAVU_FIELD(76, identifier, sci);
};
TAVU_WIRE_LAYOUT(mka_create_sc_req, 84);

// MKA_CREATE_TX_SA_RREQ and MKA_CREATE_RX_SA_RREQ. The SAK follows, sak_len bytes; the message has room for
// one byte at least.
struct mka_create_sa_rreq {
    TAVU_FIELD(0, header, message_header);
    TAVU_FIELD(12, ca, ca_name);
    TAVU_FIELD(76, identifier, sci);    // the member's own for TX, the transmitting peer's for RX
    TAVU_FIELD(84, ca_parameter, be32); // always 0
    TAVU_FIELD(88, cipher_suite, be32);
    TAVU_FIELD(92, an, be32); // 0 to 3
    TAVU_FIELD(96, packet_number, be32);
    TAVU_FIELD(100, key_name, sak_name);
    TAVU_FIELD(164, sak_len, be32);

    const uint8_t* sak() const { return reinterpret_cast<const uint8_t*>(this + 1); }
};
TAVU_WIRE_LAYOUT(mka_create_sa_rreq, 168);

struct mka_update_protect_frames_rreq {
    TAVU_FIELD(0, header, message_header);
    TAVU_FIELD(12, ca, ca_name);
    TAVU_FIELD(76, protect_frames, be32); // 0 off, 1 on
};
TAVU_WIRE_LAYOUT(mka_update_protect_frames_rreq, 80);

struct keysrv_key_refresh_timer_ind {
    TAVU_FIELD(0, header, message_header);
    TAVU_FIELD(12, ca, ca_name);
};
TAVU_WIRE_LAYOUT(keysrv_key_refresh_timer_ind, 76);

struct keysrv_msg_timeout_ind {
    TAVU_FIELD(0, header, message_header);
    TAVU_FIELD(12, awaited_number, be32); // of the message whose answer is awaited
    TAVU_FIELD(16, awaited_procedure_reference, be32);
    TAVU_FIELD(20, client_id, be32);
    TAVU_FIELD(24, ca, ca_name);
};
TAVU_WIRE_LAYOUT(keysrv_msg_timeout_ind, 88);

// The name of a protocol message or of an internal one of both sides. Each side knows its own heartbeat
// timer's name and the key server its refresh timer's; they pass that one's number.
const char* mka_msg_no_to_str(uint32_t number, uint32_t own_timer = 0);
const char* mka_error_to_str(uint32_t reason);
const char* proc_ref_to_str(uint32_t procedure_reference);
const char* standard_to_str(uint32_t standard);
const char* cipher_to_str(uint32_t cipher);

// Whatever the message is, it begins with a header.
template<class T>
message_header& header_of(outgoing<T>& message) {
    static_assert(sizeof(T) >= sizeof(message_header));
    return reinterpret_cast<message_header&>(**message.prepared());
}

// False, with an error trace, when the message carries another procedure reference. For messages whose size
// was checked.
[[nodiscard]] bool verify_procedure_reference(const oka_message* message, uint32_t expected);

// The size that a message of at least `offset` bytes, with `count` information elements from there on, has by
// their length fields. The walk ends at the first element that lies beyond the message, with a size that is
// not the message's, and at one that is shorter than its own head, with 0: a message is never read past its
// end, and a huge count cannot keep the check busy.
uint32_t size_with_information_elements(const oka_message* message, uint32_t offset, uint32_t count);

// The first element of type MKA_STANDARD_IEEE_802_1AE_2006, or null when there is none or it is shorter than
// such an element. For messages whose size was checked against their elements.
const mka_802_1ae_2006_capabilities* find_802_1ae_2006_tlv(const oka_message* message, uint32_t offset,
                                                           uint32_t count);

} // namespace tavu
