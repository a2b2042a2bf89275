#include "tavu/kay/kay_events.h"

#include <cassert>

#include "tavu/common/tavu_utils.h"
#include "tavu/kay/kay_channels.h"
#include "tavu/kay/kay_secy.h"
#include "tavu/kay/kay_status.h"

namespace tavu::kay_internal {

namespace {

constexpr uint32_t proc_ref_create_tx_sc = 100;

// --- Checks

bool parse_protect_frames(uint32_t value, bool& protect_frames) {
    TAVU_FUNCTION();
    if (value > 1) {
        TRACE_ERROR("TAVU: Invalid protect_frames value: %u", value);
        return false;
    }
    protect_frames = value == 1;
    return true;
}

bool parse_standard(uint32_t value, mka_standard& standard) {
    TAVU_FUNCTION();
    if (value > MKA_STANDARD_IEEE_802_1AEcg_2017) {
        TRACE_ERROR("TAVU: Invalid mka_macsec_standard value: %u", value);
        return false;
    }
    standard = static_cast<mka_standard>(value);
    return true;
}

bool verify_ca_name(const kay_record& kay, const ca_name& name) {
    TAVU_FUNCTION();
    if (kay.ca == name)
        return true;
    TRACE_ERROR("TAVU: Invalid CA name: actual '%s', expected '%s'", name.printable().c_str(),
                kay.ca.c_str());
    return false;
}

bool is_kay_support_standard(const kay_record& kay, mka_standard standard) {
    TAVU_FUNCTION();
    bool supported = standard == MKA_STANDARD_IEEE_802_1AE_2006;
    trace_standard_support(kay, standard, "KaY", supported);
    return supported;
}

// --- Every event

kay_record* kay_of_client(uint32_t client_id) {
    kay_record* kay = find_kay_by_mka_client_id(client_id);
    if (!kay)
        TRACE_ERROR("TAVU: Could not find MKA client with id = %u", client_id);
    return kay;
}

// A request of the KaY's CA. The step does all that the request asks for, the answer included, and gives
// false when the KaY is to fail.
template<class Request>
void carry_out(uint32_t client_id, const oka_message* message, bool (*step)(kay_record&, const Request&)) {
    kay_record* kay = kay_of_client(client_id);
    if (!kay)
        return;
    const Request& request = as<Request>(message);
    if (verify_ca_name(*kay, request.ca) && !step(*kay, request))
        handle_failure(*kay);
}

// The channel that an association is asked for, and the association's number. Null, after an error trace,
// when there can be none.
template<class Channel>
Channel* find_sc_of_request(kay_record& kay, const mka_create_sa_rreq& request,
                            Channel* (*find)(kay_record&, const sci&), uint8_t& an) {
    if (!parse_an(request.an, an))
        return nullptr;
    if (!kay_secy_is_macsec_supported(kay)) {
        TRACE_ERROR("TAVU: Port does not support MACsec, cannot create %s",
                    object_name(kay, Channel::direction, sci_to_str2(request.identifier), an).c_str());
        return nullptr;
    }
    Channel* sc = find(kay, request.identifier);
    if (!sc)
        TRACE_ERROR("TAVU: Could not find %s",
                    object_name(kay, Channel::direction, sci_to_str2(request.identifier)).c_str());
    return sc;
}

// --- Joining

bool announce_tx_sc(kay_record& kay) {
    unsigned count = get_number_of_tx_sc(kay);
    if (count != 0) {
        TRACE_ERROR("TAVU: Invalid number of TX SCs on port '%s': actual %u, expected %u", kay.port.c_str(),
                    count, 0u);
        return false;
    }
    tx_sc* sc = create_tx_sc(kay, kay.options.identifier);
    if (!sc)
        return false;
    if (!mka_client_send_create_tx_sc_req(kay.mka_client_id, proc_ref_create_tx_sc, sc->identifier)) {
        ignore_result(delete_tx_sc(kay, *sc));
        return false;
    }
    sc->state = KAY_RESOURCE_REQUESTED;
    sc->procedure_reference = proc_ref_create_tx_sc;
    return true;
}

bool enter_ca(kay_record& kay, const mka_join_ca_cfm& confirmation) {
    mka_standard standard;
    if (!parse_standard(confirmation.standard, standard))
        return false;
    TRACE("TAVU: CA '%s' uses MACsec standard: '%s'", kay.ca.c_str(), standard_to_str(standard));
    if (!is_kay_support_standard(kay, standard) || !kay_secy_is_standard_supported(kay, standard))
        return false;
    kay.standard = standard;
    TRACE_INFO("TAVU: Port '%s' joined CA '%s' with MACsec standard '%s'", kay.port.c_str(), kay.ca.c_str(),
               standard_to_str(standard));
    update_kay_data(kay, KAY_STATE_CA_JOINED);
    return announce_tx_sc(kay);
}

void handle_mka_ca_joined_ind(uint32_t client_id, const oka_message* message) {
    TAVU_FUNCTION();
    kay_record* kay = kay_of_client(client_id);
    if (!kay || !is_in_state(kay->state, KAY_STATE_CA_JOIN_PENDING, state_to_str))
        return;
    if (!enter_ca(*kay, as<mka_join_ca_cfm>(message)))
        handle_failure(*kay);
}

void handle_mka_ca_left_ind(uint32_t client_id) {
    TAVU_FUNCTION();
    kay_record* kay = kay_of_client(client_id);
    if (!kay)
        return;
    TRACE_ERROR("TAVU: KaY on port '%s' left CA '%s'", kay->port.c_str(), kay->ca.c_str());
    handle_failure(*kay);
}

void handle_mka_connection_close_cfm(uint32_t client_id, const oka_message*) {
    TAVU_FUNCTION();
    if (kay_of_client(client_id))
        TRACE_ERROR("TAVU: handle_mka_connection_close_cfm called, should never happen");
}

// --- The transmit channel

// The announced channel that the key server answers for, or null when its answer is to be ignored.
tx_sc* find_announced_tx_sc(kay_record& kay, const oka_message* message, const char* answer) {
    uint32_t procedure_reference = as<message_header>(message).procedure_reference;
    tx_sc* sc = find_tx_sc_by_proc_ref(kay, procedure_reference);
    if (!sc) {
        TRACE_ERROR("TAVU: Could not find TX SC with proc_ref %u", procedure_reference);
        return nullptr;
    }
    if (sc->state != KAY_RESOURCE_REQUESTED) {
        TRACE_ERROR("TAVU: %s received for %s in wrong state: current: '%s', expected: '%s'", answer,
                    object_name(kay, *sc).c_str(), resource_state_to_str(sc->state),
                    resource_state_to_str(KAY_RESOURCE_REQUESTED));
        return nullptr;
    }
    return sc;
}

void handle_mka_create_tx_sc_cfm(uint32_t client_id, const oka_message* message) {
    TAVU_FUNCTION();
    kay_record* kay = kay_of_client(client_id);
    tx_sc* sc = kay ? find_announced_tx_sc(*kay, message, "create_tx_sc_cfm") : nullptr;
    if (!sc)
        return;
    TRACE("TAVU: %s creation confirmed", object_name(*kay, *sc).c_str());
    sc->state = KAY_RESOURCE_CONFIRMED;
    update_kay_data(*kay, kay->state);
}

void handle_mka_create_tx_sc_rej(uint32_t client_id, const oka_message* message) {
    TAVU_FUNCTION();
    kay_record* kay = kay_of_client(client_id);
    tx_sc* sc = kay ? find_announced_tx_sc(*kay, message, "create_tx_sc_rej") : nullptr;
    if (!sc)
        return;
    TRACE_ERROR("TAVU: %s creation rejected", object_name(*kay, *sc).c_str());
    handle_failure(*kay);
}

bool add_tx_sa(kay_record& kay, const mka_create_sa_rreq& request) {
    uint8_t an;
    tx_sc* sc = find_sc_of_request(kay, request, find_tx_sc, an);
    if (!sc)
        return false;
    const object_name name(kay, *sc, an);
    tx_sa* previous = find_first_tx_sa(*sc);
    if (previous && previous->an == an) {
        TRACE_ERROR("TAVU: %s already exists", name.c_str());
        return false;
    }
    if (!create_tx_sa(kay, *sc, request)) {
        TRACE_ERROR("TAVU: Could not create %s", name.c_str());
        return false;
    }
    // The new key is in use before the old one goes, so that every frame has a key.
    if (previous && !delete_tx_sa(kay, *sc, *previous))
        return false;
    if (!mka_client_send_create_tx_sa_rcfm(kay.mka_client_id, request.header.procedure_reference))
        return false;
    update_kay_data(kay, kay.state);
    return true;
}

void handle_mka_create_tx_sa_req(uint32_t client_id, const oka_message* message) {
    TAVU_FUNCTION();
    carry_out(client_id, message, add_tx_sa);
}

// --- Receive channels

bool add_rx_sc(kay_record& kay, const mka_create_sc_req& request) {
    const uint32_t procedure_reference = request.header.procedure_reference;
    char sci_text[128];
    sci_to_str1(sci_text, request.identifier);
    const object_name name(kay, rx_sc::direction, sci_text);
    if (!kay_secy_is_macsec_supported(kay)) {
        TRACE_ERROR("TAVU: Port does not support MACsec, cannot create %s", name.c_str());
        return false;
    }
    if (find_rx_sc(kay, request.identifier)) {
        TRACE_ERROR("TAVU: %s already exists", name.c_str());
        return false;
    }
    if (get_number_of_rx_sc(kay) >= kay_max_rx_scs) {
        TRACE_ERROR("TAVU: Maximum number of RX SC (%u)reached, cannot create %s", kay_max_rx_scs,
                    name.c_str());
        return mka_client_send_create_rx_sc_rrej(kay.mka_client_id, procedure_reference,
                                                 MKA_REJ_MAX_NUMBER_OF_RX_SC_REACHED);
    }
    if (!create_rx_sc(kay, request.identifier)) {
        TRACE_ERROR("TAVU: Could not create %s", name.c_str());
        return false;
    }
    if (!mka_client_send_create_rx_sc_rcfm(kay.mka_client_id, procedure_reference))
        return false;
    update_kay_data(kay, kay.state);
    return true;
}

void handle_mka_create_rx_sc_req(uint32_t client_id, const oka_message* message) {
    TAVU_FUNCTION();
    carry_out(client_id, message, add_rx_sc);
}

// --- Receive associations

void kay_sa_start_disposal_timer(const kay_record& kay, const rx_sc& sc, rx_sa& sa) {
    TAVU_FUNCTION();
    assert(sa.disposal_timer == 0);
    TRACE("TAVU: Starting disposal timer for primary %s", object_name(kay, sc, sa.an).c_str());
    outgoing<kay_sa_disposal_timeout_ind> message(KAY_SA_DISPOSAL_TIMEOUT_IND);
    message->port = kay.port;
    message->identifier = sc.identifier;
    message->an = sa.an;
    message->key_name = sa.key_name;
    sa.disposal_timer = oka_timer_request_sig(kay_sa_disposal_ms, message.prepared());
}

// The older keys stay for a while after the newest came, for the frames that are on their way.
void kay_sa_new_primary(const kay_record& kay, rx_sc& sc, rx_sa& primary) {
    TAVU_FUNCTION();
    TRACE("TAVU: %s is the new primary SA", object_name(kay, sc, primary.an).c_str());
    for (rx_sa& other : sc.associations) {
        if (&other == &primary || other.state != KAY_SA_PRIMARY)
            continue;
        change_sa_state(kay, sc, other, KAY_SA_DISPOSING);
        cancel_disposal_timer(other);
    }
    kay_sa_start_disposal_timer(kay, sc, primary);
}

bool add_rx_sa(kay_record& kay, const mka_create_sa_rreq& request) {
    const uint32_t procedure_reference = request.header.procedure_reference;
    uint8_t an;
    rx_sc* sc = find_sc_of_request(kay, request, find_rx_sc, an);
    if (!sc)
        return false;
    const object_name name(kay, *sc, an);
    if (get_number_of_rx_sa(kay, *sc) >= kay_max_rx_sas) {
        TRACE_ERROR("TAVU: Maximum number of RX SA (%u)reached, cannot create %s", kay_max_rx_sas,
                    name.c_str());
        return mka_client_send_create_rx_sa_rrej(kay.mka_client_id, procedure_reference,
                                                 MKA_REJ_MAX_NUMBER_OF_RX_SA_REACHED);
    }
    if (find_rx_sa(kay, *sc, an)) {
        TRACE_ERROR("TAVU: %s already exists", name.c_str());
        return false;
    }
    rx_sa* sa = create_rx_sa(kay, *sc, request);
    if (!sa || !mka_client_send_create_rx_sa_rcfm(kay.mka_client_id, procedure_reference))
        return false;
    kay_sa_new_primary(kay, *sc, *sa);
    update_kay_data(kay, kay.state);
    return true;
}

void handle_mka_create_rx_sa_req(uint32_t client_id, const oka_message* message) {
    TAVU_FUNCTION();
    carry_out(client_id, message, add_rx_sa);
}

// The association that the timer was started for, or null, after a trace, when it is no longer the primary.
// The timer of an association that was deleted meanwhile can still arrive.
rx_sa* find_primary(kay_record& kay, rx_sc& sc, const kay_sa_disposal_timeout_ind& event) {
    rx_sa* sa = find_rx_sa(kay, sc, event.an);
    const char* event_name = msg_no_to_str(KAY_SA_DISPOSAL_TIMEOUT_IND);
    const object_name name(kay, sc, event.an);
    if (!sa) {
        TRACE("TAVU: Could not find %s, dropping '%s'", name.c_str(), event_name);
        return nullptr;
    }
    if (sa->key_name != event.key_name) {
        TRACE("TAVU: %s of '%s' has SAK name '%s', but current SAK name is '%s', dropping event",
              name.c_str(), event_name, event.key_name.printable().c_str(), sa->key_name.c_str());
        return nullptr;
    }
    if (sa->state != KAY_SA_PRIMARY) {
        TRACE("TAVU: '%s' received for %s but SA state is '%s'", event_name, name.c_str(),
              sa_state_to_str(sa->state));
        return nullptr;
    }
    return sa;
}

// --- Frame protection

bool update_protect_frames(kay_record& kay, const mka_update_protect_frames_rreq& request) {
    bool protect_frames;
    if (!parse_protect_frames(request.protect_frames, protect_frames))
        return false;
    if (!kay_secy_is_macsec_supported(kay)) {
        TRACE_ERROR("TAVU: Port '%s' does not support MACsec, cannot update protectFrames", kay.port.c_str());
        return false;
    }
    kay.protect_frames_initialised = true;
    if (!kay_secy_set_protect_frames(kay, protect_frames))
        return false;
    kay.protect_frames = protect_frames;
    if (!mka_client_send_update_protect_frames_rcfm(kay.mka_client_id, request.header.procedure_reference))
        return false;
    update_kay_data(kay, kay.state);
    return true;
}

void handle_mka_update_protect_frames_req(uint32_t client_id, const oka_message* message) {
    TAVU_FUNCTION();
    kay_record* kay = kay_of_client(client_id);
    if (!kay || !is_in_state(kay->state, KAY_STATE_CA_JOINED, state_to_str))
        return;
    if (!update_protect_frames(*kay, as<mka_update_protect_frames_rreq>(message)))
        handle_failure(*kay);
}

} // namespace

const mka_client_callbacks kay_mka_event_handlers = {
    .handle_mka_client_create_tx_sc_cfm = handle_mka_create_tx_sc_cfm,
    .handle_mka_client_create_tx_sc_rej = handle_mka_create_tx_sc_rej,
    .handle_mka_client_create_rx_sc_req = handle_mka_create_rx_sc_req,
    .handle_mka_client_create_tx_sa_req = handle_mka_create_tx_sa_req,
    .handle_mka_client_create_rx_sa_req = handle_mka_create_rx_sa_req,
    .handle_mka_client_update_protect_frames_req = handle_mka_update_protect_frames_req,
    .handle_mka_client_ca_joined_ind = handle_mka_ca_joined_ind,
    .handle_mka_client_ca_left_ind = handle_mka_ca_left_ind,
    .handle_mka_connection_close_cfm = handle_mka_connection_close_cfm,
};

void kay_handle_sa_disposal_timeout(const oka_message* message) {
    TAVU_FUNCTION();
    const char* event_name = msg_no_to_str(message->number);
    if (oka_size(message) != sizeof(kay_sa_disposal_timeout_ind)) {
        TRACE_ERROR("TAVU: Wrong message size for message '%s': actual %u, expected %u", event_name,
                    oka_size(message), static_cast<unsigned>(sizeof(kay_sa_disposal_timeout_ind)));
        return;
    }
    const auto& event = as<kay_sa_disposal_timeout_ind>(message);
    const auto port = event.port.printable();
    kay_record* kay = find_kay_by_port_name(port.c_str());
    if (!kay) {
        TRACE("TAVU: Could not find KaY with port name '%s', dropping '%s'", port.c_str(), event_name);
        return;
    }
    rx_sc* sc = find_rx_sc(*kay, event.identifier);
    if (!sc) {
        TRACE("TAVU: Could not find %s, dropping '%s'",
              object_name(*kay, rx_sc::direction, sci_to_str2(event.identifier)).c_str(), event_name);
        return;
    }
    rx_sa* primary = find_primary(*kay, *sc, event);
    if (!primary)
        return;
    TRACE("TAVU: SA disposal timeout received for all RX SAs except primary %s",
          object_name(*kay, *sc, primary->an).c_str());
    primary->disposal_timer = 0;
    for (rx_sa& other : sc->associations) {
        if (&other != primary)
            ignore_result(delete_rx_sa(*kay, *sc, other));
    }
}

} // namespace tavu::kay_internal
