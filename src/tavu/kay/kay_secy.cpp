#include "tavu/kay/kay_secy.h"

#include <type_traits>

#include "tavu/common/tavu_utils.h"

namespace tavu::kay_internal {

namespace {

static_assert(sizeof(oxhal_macsec_port_cap) == 88 && offsetof(oxhal_macsec_port_cap, num_of_rx_scs) == 8 &&
              offsetof(oxhal_macsec_port_cap, num_of_rx_sas) == 16 &&
              offsetof(oxhal_macsec_port_cap, num_of_additional_ciphers) == 20);

struct verb {
    const char* doing;
    const char* infinitive;
};
constexpr verb creating = {"Creating", "create"};
constexpr verb enabling = {"Enabling", "enable"};
constexpr verb deleting = {"Deleting", "delete"};

// Does something to one channel or association.
template<class... Parameters>
bool perform(const verb& what, const object_name& object, int (*operation)(Parameters...),
             std::type_identity_t<Parameters>... arguments) {
    TRACE("TAVU: %s %s", what.doing, object.c_str());
    int error = operation(arguments...);
    if (error != 0)
        TRACE_ERROR("TAVU: Could not %s %s: SecY error code = %i", what.infinitive, object.c_str(), error);
    return error == 0;
}

// Sets one value of the whole port.
template<class Value>
bool set(const kay_record& kay, const char* setting, int (*operation)(uint32_t, Value),
         std::type_identity_t<Value> value, const char* value_text) {
    TRACE("TAVU: Setting %s to '%s' on port '%s'", setting, value_text, kay.port.c_str());
    int error = operation(kay.port_handle, value);
    if (error != 0)
        TRACE_ERROR("TAVU: Could not set %s to '%s' on port '%s', SecY error code = %i", setting, value_text,
                    kay.port.c_str(), error);
    return error == 0;
}

bool set(const kay_record& kay, const char* setting, int (*operation)(uint32_t, bool), bool value) {
    return set(kay, setting, operation, value, bool_to_str(value));
}

bool delete_all(const kay_record& kay, const char* direction, int (*operation)(uint32_t)) {
    TRACE("TAVU: Deleting all %s SC on port '%s'", direction, kay.port.c_str());
    int error = operation(kay.port_handle);
    if (error != 0)
        TRACE_ERROR("TAVU: Could not delete all %s SC on port '%s', SecY error code = %i", direction,
                    kay.port.c_str(), error);
    return error == 0;
}

bool read_in_use(const kay_record& kay, const oxhal_macsec_sci& identifier, uint8_t an,
                 const object_name& object, int (*operation)(uint32_t, oxhal_macsec_sci, uint8_t, bool*)) {
    bool in_use = false;
    int error = operation(kay.port_handle, identifier, an, &in_use);
    if (error != 0) {
        TRACE_ERROR("TAVU: Could not get in_use for %s, SecY error code = %i", object.c_str(), error);
        return false;
    }
    TRACE("TAVU: in_use for %s = '%s'", object.c_str(), bool_to_str(in_use));
    return in_use;
}

oxhal_macsec_sci to_oxhal(const sci& identifier) {
    oxhal_macsec_sci value;
    static_assert(sizeof value.octets == sizeof identifier.octets);
    memcpy(value.octets, identifier.octets, sizeof value.octets);
    return value;
}

} // namespace

bool kay_secy_macsec_init() {
    TAVU_FUNCTION();
    int error = oxhal_macsec_init();
    if (error != 0)
        TRACE_ERROR("TAVU: Could not initialize MACsec block SecY error code = %i", error);
    return error == 0;
}

namespace {

void kay_secy_get_802_1ae_capabilities(kay_record& kay, const oxhal_macsec_port_cap& entry) {
    TAVU_FUNCTION();
    kay.macsec_supported = true;
    kay.capabilities.num_of_rx_scs = entry.num_of_rx_scs;
    kay.capabilities.num_of_rx_sas = entry.num_of_rx_sas;
    kay.capabilities.replay_protection_supported = entry.replay_protection_supported;
    kay.capabilities.confidentiality_supported = entry.confidentiality_supported;
    kay.capabilities.confidentiality_offset_supported = entry.confidentiality_offset_supported;
    if (entry.num_of_additional_ciphers != 0)
        TRACE("TAVU: KaY does not support additional ciphers, ignoring SecY values on port '%s'",
              kay.port.c_str());
    kay.capabilities.additional_ciphers = 0;
}

} // namespace

bool kay_secy_get_capabilities(kay_record& kay) {
    TAVU_FUNCTION();
    const oxhal_macsec_port_cap_list* list = nullptr;
    int error = oxhal_macsec_port_cap_get(kay.port_handle, &list);
    if (error != 0) {
        TRACE_ERROR("TAVU: Could not get MACsec hardware capabilities for port '%s', SecY error code = %i",
                    kay.port.c_str(), error);
        return false;
    }
    if (!list) {
        TRACE_ERROR("TAVU: Could not get MACsec hardware capabilities for port '%s'", kay.port.c_str());
        return false;
    }
    kay.macsec_supported = false;
    const oxhal_macsec_port_cap* entry = list->entries;
    for (uint32_t count = list->count; count > 0; count--, entry++) {
        if (entry->standard == OXHAL_MACSEC_STANDARD_IEEE_802_1AE_2006)
            kay_secy_get_802_1ae_capabilities(kay, *entry);
    }
    return true;
}

bool kay_secy_is_macsec_supported(const kay_record& kay) {
    TAVU_FUNCTION();
    TRACE("TAVU: SecY on port '%s' %s MACsec", kay.port.c_str(),
          kay.macsec_supported ? "supports" : "does not support");
    return kay.macsec_supported;
}

bool kay_secy_is_standard_supported(const kay_record& kay, mka_standard standard) {
    TAVU_FUNCTION();
    bool supported = standard == MKA_STANDARD_IEEE_802_1AE_2006 && kay.macsec_supported;
    trace_standard_support(kay, standard, "SecY", supported);
    return supported;
}

bool kay_secy_is_cipher_supported(const kay_record& kay, mka_standard standard, mka_cipher cipher) {
    TAVU_FUNCTION();
    const cipher_suite* suite = find_cipher_suite(cipher);
    return kay_secy_is_standard_supported(kay, standard) && suite && suite->is_supported;
}

void trace_standard_support(const kay_record& kay, mka_standard standard, const char* who, bool supported) {
    TRACE("TAVU: MACsec standard '%s' used by CA '%s' is %s by %s on port '%s'", standard_to_str(standard),
          kay.ca.c_str(), supported ? "supported" : "not supported", who, kay.port.c_str());
}

bool kay_secy_create_tx_sc(const kay_record& kay, const tx_sc& sc) {
    TAVU_FUNCTION();
    return perform(creating, object_name(kay, sc), oxhal_macsec_transmit_sc_create, kay.port_handle,
                   to_oxhal(sc.identifier));
}

bool kay_secy_create_rx_sc(const kay_record& kay, const rx_sc& sc) {
    TAVU_FUNCTION();
    return perform(creating, object_name(kay, sc), oxhal_macsec_receive_sc_create, kay.port_handle,
                   to_oxhal(sc.identifier));
}

bool kay_secy_delete_tx_sc(const kay_record& kay, const tx_sc& sc) {
    TAVU_FUNCTION();
    return perform(deleting, object_name(kay, sc), oxhal_macsec_transmit_sc_delete, kay.port_handle,
                   to_oxhal(sc.identifier));
}

bool kay_secy_delete_rx_sc(const kay_record& kay, const rx_sc& sc) {
    TAVU_FUNCTION();
    return perform(deleting, object_name(kay, sc), oxhal_macsec_receive_sc_delete, kay.port_handle,
                   to_oxhal(sc.identifier));
}

bool kay_secy_create_enable_tx_sa(const kay_record& kay, const tx_sc& sc, const tx_sa& sa,
                                  uint32_t next_packet_number, bool confidentiality,
                                  const oxhal_macsec_key& key) {
    TAVU_FUNCTION();
    const object_name object(kay, sc, sa.an);
    if (!perform(creating, object, oxhal_macsec_transmit_sa_create, kay.port_handle, to_oxhal(sc.identifier),
                 sa.an, next_packet_number, confidentiality, key))
        return false;
    if (perform(enabling, object, oxhal_macsec_transmit_sa_enable, kay.port_handle, to_oxhal(sc.identifier),
                sa.an, true))
        return true;
    ignore_result(kay_secy_delete_tx_sa(kay, sc, sa));
    return false;
}

bool kay_secy_create_enable_rx_sa(const kay_record& kay, const rx_sc& sc, const rx_sa& sa,
                                  uint32_t lowest_packet_number, const oxhal_macsec_key& key) {
    TAVU_FUNCTION();
    const object_name object(kay, sc, sa.an);
    if (!perform(creating, object, oxhal_macsec_receive_sa_create2, kay.port_handle, to_oxhal(sc.identifier),
                 sa.an, lowest_packet_number, key))
        return false;
    if (perform(enabling, object, oxhal_macsec_receive_sa_enable, kay.port_handle, to_oxhal(sc.identifier),
                sa.an, true))
        return true;
    ignore_result(kay_secy_delete_rx_sa(kay, sc, sa));
    return false;
}

bool kay_secy_delete_tx_sa(const kay_record& kay, const tx_sc& sc, const tx_sa& sa) {
    TAVU_FUNCTION();
    return perform(deleting, object_name(kay, sc, sa.an), oxhal_macsec_transmit_sa_delete, kay.port_handle,
                   to_oxhal(sc.identifier), sa.an);
}

bool kay_secy_delete_rx_sa(const kay_record& kay, const rx_sc& sc, const rx_sa& sa) {
    TAVU_FUNCTION();
    return perform(deleting, object_name(kay, sc, sa.an), oxhal_macsec_receive_sa_delete, kay.port_handle,
                   to_oxhal(sc.identifier), sa.an);
}

bool kay_secy_tx_sa_in_use(const kay_record& kay, const tx_sc& sc, const tx_sa& sa) {
    TAVU_FUNCTION();
    return read_in_use(kay, to_oxhal(sc.identifier), sa.an, object_name(kay, sc, sa.an),
                       oxhal_macsec_transmit_sa_in_use_get);
}

bool kay_secy_rx_sa_in_use(const kay_record& kay, const rx_sc& sc, const rx_sa& sa) {
    TAVU_FUNCTION();
    return read_in_use(kay, to_oxhal(sc.identifier), sa.an, object_name(kay, sc, sa.an),
                       oxhal_macsec_receive_sa_in_use_get);
}

bool kay_secy_set_protect_frames(const kay_record& kay, bool protect) {
    TAVU_FUNCTION();
    return set(kay, "protectFrames", oxhal_macsec_protect_frames_set2, protect);
}

namespace {

bool kay_secy_delete_all_transmit_sc(const kay_record& kay) {
    TAVU_FUNCTION();
    return delete_all(kay, "TX", oxhal_macsec_transmit_sc_delete_all);
}

bool kay_secy_delete_all_receive_sc(const kay_record& kay) {
    TAVU_FUNCTION();
    return delete_all(kay, "RX", oxhal_macsec_receive_sc_delete_all);
}

bool kay_secy_set_validate_frames(const kay_record& kay, uint32_t validate_frames) {
    TAVU_FUNCTION();
    return set(kay, "validateFrames", oxhal_macsec_validate_frames_set2,
               static_cast<oxhal_macsec_validate_frames>(validate_frames),
               validate_frames_to_str(validate_frames));
}

bool kay_secy_set_replay_protection(const kay_record& kay, bool enable, uint32_t window) {
    TAVU_FUNCTION();
    TRACE("TAVU: Setting replay protection to '%s' with window size %u on port '%s'", bool_to_str(enable),
          window, kay.port.c_str());
    int error = oxhal_macsec_replay_protect_set2(kay.port_handle, enable);
    if (error != 0) {
        TRACE_ERROR("TAVU: Could not set replay protection = '%s' on port '%s', SecY error code = %i",
                    bool_to_str(enable), kay.port.c_str(), error);
        return false;
    }
    error = oxhal_macsec_replay_window_set(kay.port_handle, window);
    if (error != 0)
        TRACE_ERROR("TAVU: Could not set replay protection window size %u on port '%s', SecY error code = %i",
                    window, kay.port.c_str(), error);
    return error == 0;
}

bool kay_secy_set_es(const kay_record& kay, bool use) {
    TAVU_FUNCTION();
    return set(kay, "useES", oxhal_macsec_es_set, use);
}

bool kay_secy_set_scb(const kay_record& kay, bool use) {
    TAVU_FUNCTION();
    return set(kay, "useSCB", oxhal_macsec_scb_set, use);
}

bool kay_secy_set_always_include_sci(const kay_record& kay, bool always) {
    TAVU_FUNCTION();
    return set(kay, "alwaysUseSCI", oxhal_macsec_always_include_sci_set, always);
}

bool kay_secy_enable_cp(const kay_record& kay) {
    TAVU_FUNCTION();
    TRACE("TAVU: Enable MACsec controlled port on common port '%s'", kay.port.c_str());
    int error = oxhal_macsec_enable_set(kay.port_handle, true);
    if (error != 0)
        TRACE_ERROR("TAVU: Could not enable MACsec controlled port on common port '%s', SecY error code = %i",
                    kay.port.c_str(), error);
    return error == 0;
}

bool kay_secy_apply_macsec_configuration(const kay_record& kay) {
    TAVU_FUNCTION();
    TRACE("TAVU: Configuring MACsec on port '%s' according to MACsec configuration options",
          kay.port.c_str());
    const kay_configuration_options& options = kay.options;
    return kay_secy_set_replay_protection(kay, options.replay_protection, options.replay_window) &&
           kay_secy_set_validate_frames(kay, options.validate_frames) &&
           kay_secy_set_es(kay, options.use_es) && //
           kay_secy_set_scb(kay, options.use_scb) &&
           kay_secy_set_always_include_sci(kay, options.always_use_sci);
}

bool kay_secy_disable_macsec(const kay_record& kay) {
    TAVU_FUNCTION();
    TRACE("TAVU: Disable MACsec on port '%s'", kay.port.c_str());
    bool unprotected = kay_secy_set_protect_frames(kay, false);
    bool unvalidated = kay_secy_set_validate_frames(kay, OXHAL_MACSEC_VALIDATE_FRAMES_DISABLED);
    bool transmit_deleted = kay_secy_delete_all_transmit_sc(kay);
    bool receive_deleted = kay_secy_delete_all_receive_sc(kay);
    return unprotected && unvalidated && transmit_deleted && receive_deleted;
}

} // namespace

bool enable_macsec_cp(const kay_record& kay) {
    TAVU_FUNCTION();
    if (!kay_secy_is_macsec_supported(kay)) {
        TRACE("TAVU: Port '%s' does not support MACsec API", kay.port.c_str());
        return true;
    }
    return kay_secy_disable_macsec(kay) && kay_secy_enable_cp(kay);
}

bool disable_macsec(const kay_record& kay) {
    TAVU_FUNCTION();
    if (!kay_secy_is_macsec_supported(kay)) {
        TRACE("TAVU: Port '%s' does not support MACsec", kay.port.c_str());
        return true;
    }
    return kay_secy_disable_macsec(kay);
}

bool apply_macsec_configuration(const kay_record& kay) {
    TAVU_FUNCTION();
    if (!kay_secy_is_macsec_supported(kay)) {
        TRACE("TAVU: Port '%s' does not support MACsec", kay.port.c_str());
        return true;
    }
    return kay_secy_apply_macsec_configuration(kay);
}

} // namespace tavu::kay_internal
