#include "tavu/key_server/key_server_admission.h"

#include "base/ignore_result.h"
#include "tavu/key_server/key_server_ending.h"
#include "tavu/key_server/key_server_requests.h"

namespace tavu::keysrv {

// --- Joining

namespace {

struct capability_limit {
    uint32_t value;
    uint32_t least;
    uint32_t most;
    uint32_t reason;
    const char* name;
};

// 0, or why a SecY with these capabilities cannot be a member.
uint32_t verify_802_1ae_2006_capabilities(uint32_t client_id,
                                          const mka_802_1ae_2006_capabilities& capabilities) {
    KEYSRV_FUNCTION();
    const capability_limit limits[] = {
        {capabilities.num_of_rx_scs, 1, UINT32_MAX, MKA_REJ_INVALID_NUM_OF_RX_SC, "num_of_rx_scs"},
        {capabilities.num_of_rx_sas, 2, number_of_ans, MKA_REJ_INVALID_NUM_OF_RX_SA, "num_of_rx_sas"},
        {capabilities.replay_protection_supported, 0, 1, MKA_REJ_INVALID_REPLAY_PROTECTION_SUPPORTED,
         "replay_protection_supported"},
        {capabilities.confidentiality_supported, 0, 1, MKA_REJ_INVALID_CONFIDENTIALITY_SUPPORTED,
         "confidentiality_supported"},
        {capabilities.confidentiality_offset_supported, 0, 1,
         MKA_REJ_INVALID_CONFIDENTIALITY_OFFSET_SUPPORTED, "confidentiality_offset_supported"},
    };
    for (const capability_limit& limit : limits) {
        if (limit.value < limit.least || limit.value > limit.most) {
            TRACE_ERROR("KEYSRV: Invalid %s value: %u for client id = %u", limit.name, limit.value,
                        client_id);
            return limit.reason;
        }
    }
    return 0;
}

// Every member has the one standard that every SecY supports.
bool parse_standard(uint32_t value) {
    KEYSRV_FUNCTION();
    if (value > MKA_STANDARD_IEEE_802_1AEcg_2017) {
        TRACE_ERROR("KEYSRV: Unknown standard value: %u", value);
        return false;
    }
    if (value != MKA_STANDARD_IEEE_802_1AE_2006) {
        TRACE_ERROR("KEYSRV: Unsupported standard: '%s'", standard_to_str(value));
        return false;
    }
    return true;
}

// In octets; 0, after an error trace, for an unknown cipher suite.
uint32_t verify_sak_len(uint32_t cipher) {
    KEYSRV_FUNCTION();
    const cipher_suite* suite = find_cipher_suite(cipher);
    if (!suite && cipher != MKA_CIPHER_NULL) {
        TRACE_ERROR("KEYSRV: Invalid mka_macsec_cipher value: %u", cipher);
        return 0;
    }
    uint32_t key_len = suite ? suite->sak_len : 1;
    TRACE_DETAIL("KEYSRV: SAK length for cipher '%s': key_len %u", cipher_to_str(cipher), key_len);
    return key_len;
}

// Of the capabilities only the number of receive channels is used later.
ca_member* create_ca_member(uint32_t client_id, const mka_join_ca_req& request,
                            const mka_802_1ae_2006_capabilities& capabilities) {
    KEYSRV_FUNCTION();
    if (!parse_standard(capabilities.head.type))
        return nullptr;
    ca_member* member = add_ca_member();
    if (!member)
        return nullptr;
    member->client_id = client_id;
    member->identifier = null_sci;
    member->ca.assign(request.ca);
    member->state = CA_MEMBER_STATE_INITIAL;
    member->standard = capabilities.head.type;
    member->key_len = verify_sak_len(cipher_of_cas);
    member->num_of_rx_scs = capabilities.num_of_rx_scs;
    member->protect_frames_confirmed = true;
    return member;
}

// The new member, or null and why there is none.
ca_member* admit(uint32_t client_id, const oka_message* message, uint32_t& reason) {
    const auto& request = as<mka_join_ca_req>(message);
    if (!find_ca_by_name(request.ca)) {
        TRACE_ERROR("KEYSRV: CA '%s' not found for client id = %u", request.ca.printable().c_str(),
                    client_id);
        reason = MKA_REJ_CA_NOT_FOUND;
        return nullptr;
    }
    if (const ca_member* joined = find_ca_member_by_client_id(client_id)) {
        TRACE_ERROR("KEYSRV: client id = %u is already member of CA '%s'", client_id, joined->ca.c_str());
        reason = MKA_REJ_ALREADY_JOINED;
        return nullptr;
    }
    const mka_802_1ae_2006_capabilities* capabilities =
        find_802_1ae_2006_tlv(message, sizeof request, request.num_of_information_elements);
    if (!capabilities) {
        TRACE_ERROR("KEYSRV: client id = %u does not support base standard", client_id);
        reason = MKA_REJ_INSUFFICIENT_CA_CAPABILITIES;
        return nullptr;
    }
    reason = verify_802_1ae_2006_capabilities(client_id, *capabilities);
    if (reason != 0)
        return nullptr;
    reason = MKA_REJ_INTERNAL_ERROR;
    return create_ca_member(client_id, request, *capabilities);
}

} // namespace

void handle_ks_ca_member_join_ca_req(uint32_t client_id, const oka_message* message) {
    KEYSRV_FUNCTION();
    trace_received(message);
    uint32_t procedure_reference = as<mka_join_ca_req>(message).header.procedure_reference;
    uint32_t reason = 0;
    ca_member* member = admit(client_id, message, reason);
    if (!member) {
        ignore_result(ks_send_join_ca_rej_by_client_id(client_id, procedure_reference, reason));
        return;
    }
    if (ks_send_join_ca_cfm(*member, procedure_reference, member->standard))
        change_ca_member_state(*member, CA_MEMBER_STATE_JOINED);
    else
        drop_all_ca_members(member->ca);
}

// --- Channels

namespace {

rx_sc* create_rx_sc(ca_member& member, const sci& identifier) {
    KEYSRV_FUNCTION();
    rx_sc* channel = member.rx_scs.add();
    if (!channel)
        return nullptr;
    channel->identifier = identifier;
    return channel;
}

// A member may have one channel more than its capabilities say.
bool add_rx_sc_to_member(ca_member& member, const sci& identifier) {
    KEYSRV_FUNCTION();
    if (find_rx_sc_by_sci(member, identifier)) {
        TRACE_ERROR("KEYSRV: rx_sc with sci=%s, already present for member %u",
                    sci_to_str(identifier).c_str(), member.client_id);
        return false;
    }
    if (get_rx_sc_number(member) > member.num_of_rx_scs) {
        TRACE_ERROR("KEYSRV: max rx_sc num exceeded for member %u", member.client_id);
        return false;
    }
    if (!create_rx_sc(member, identifier)) {
        TRACE_ERROR("KEYSRV: rx_sc not created for member %u", member.client_id);
        return false;
    }
    return true;
}

bool needs_rx_sc(ca_member& receiver, const ca_member& transmitter) {
    return !(transmitter.identifier == null_sci) && !(receiver.identifier == null_sci) &&
           !(transmitter.identifier == receiver.identifier) &&
           !find_rx_sc_by_sci(receiver, transmitter.identifier);
}

// Gives every announced member a channel for every other that it has none for yet.
bool configure_rx_sc_ca(const connectivity_association& ca) {
    KEYSRV_FUNCTION();
    for (const ca_member& transmitter : members_of(ca)) {
        for (ca_member& receiver : members_of(ca)) {
            if (!needs_rx_sc(receiver, transmitter))
                continue;
            if (!add_rx_sc_to_member(receiver, transmitter.identifier) ||
                !ks_send_create_rx_sc_rreq(receiver, transmitter.identifier, PROC_REF_RX_SC_CREATE))
                return false;
        }
    }
    return true;
}

// 0, or why the member cannot transmit under this SCI.
uint32_t announcement_refusal(const ca_member& member, const mka_create_sc_req& request) {
    if (!(member.ca == request.ca)) {
        TRACE_ERROR("KEYSRV: element id %u FAILURE. Reason: member of ca %s instead of %s", member.client_id,
                    member.ca.c_str(), request.ca.printable().c_str());
        return MKA_REJ_CA_NOT_FOUND;
    }
    if (request.identifier == null_sci) {
        TRACE_ERROR("KEYSRV: client id = %u requested invalid SCI value in CA '%s'", member.client_id,
                    member.ca.c_str());
        return MKA_REJ_INVALID_SCI;
    }
    if (find_ca_member_by_sci(member.ca, request.identifier)) {
        TRACE_ERROR("KEYSRV: client id = %u requested an SCI value that is already used in CA '%s'",
                    member.client_id, member.ca.c_str());
        return MKA_REJ_SCI_ALREADY_USED;
    }
    return 0;
}

} // namespace

void handle_ks_ca_member_create_tx_sc_req(uint32_t client_id, const oka_message* message) {
    KEYSRV_FUNCTION();
    trace_received(message);
    const auto& request = as<mka_create_sc_req>(message);
    uint32_t procedure_reference = request.header.procedure_reference;
    const connectivity_association* ca = find_ca_by_name(request.ca);
    if (!ca) {
        TRACE_ERROR("KEYSRV: handle_ks_ca_member_create_tx_sc_req: ca = %s not found (id=%u)",
                    request.ca.printable().c_str(), client_id);
        return;
    }
    ca_member* member = find_ca_member_by_client_id(client_id);
    if (!member) {
        TRACE_ERROR("KEYSRV: handle_ks_ca_member_create_tx_sc_req: element not found (client_id=%u)",
                    client_id);
        return;
    }
    if (uint32_t reason = announcement_refusal(*member, request)) {
        ignore_result(ks_send_create_tx_sc_rej(*member, procedure_reference, reason));
        if (reason == MKA_REJ_CA_NOT_FOUND)
            drop_all_ca_members(member->ca);
        return;
    }
    member->identifier = request.identifier;
    if (!ks_send_create_tx_sc_cfm(*member, procedure_reference)) {
        TRACE_ERROR("KEYSRV: ks_send_create_tx_sc_cfm not sent to member %u of ca %s", client_id,
                    member->ca.c_str());
        drop_all_ca_members(member->ca);
        return;
    }
    change_ca_member_state(*member, CA_MEMBER_STATE_SELF_ANNOUNCED);
    if (!configure_rx_sc_ca(*ca))
        drop_all_ca_members(ca->name);
}

} // namespace tavu::keysrv
