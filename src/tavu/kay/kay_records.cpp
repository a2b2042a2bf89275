#include "tavu/kay/kay_records.h"

#include "base/enum_text.h"
#include "platform/oxhal.h"
#include "tavu/common/tavu_utils.h"

namespace tavu {

namespace kay_internal {

kay_module self;

namespace {

constexpr enum_text global_state_names[] = {
    ENUM_TEXT(GLOBAL_STATE_UNINITIALIZED),
    ENUM_TEXT(GLOBAL_STATE_INITIALIZED),
    ENUM_TEXT(GLOBAL_STATE_READY),
};

constexpr enum_text role_names[] = {
    ENUM_TEXT(MACSEC_ROLE_UNAUTHENTICATED),
    ENUM_TEXT(MACSEC_ROLE_SECURED),
};

constexpr enum_text cp_oper_state_names[] = {
    ENUM_TEXT(KAY_CP_OPER_DISABLED),
    ENUM_TEXT(KAY_CP_OPER_ENABLED),
};

constexpr enum_text encryption_state_names[] = {
    ENUM_TEXT(MACSEC_ENCRYPTION_DISABLED),
    ENUM_TEXT(MACSEC_ENCRYPTION_ENABLED),
};

constexpr enum_text state_names[] = {
    ENUM_TEXT(KAY_STATE_CREATED),         ENUM_TEXT(KAY_STATE_UNAUTHENTICATED),
    ENUM_TEXT(KAY_STATE_CA_JOIN_PENDING), ENUM_TEXT(KAY_STATE_CA_JOINED),
    ENUM_TEXT(KAY_STATE_FAILED),
};

constexpr enum_text resource_state_names[] = {
    ENUM_TEXT(KAY_RESOURCE_REQUESTED),
    ENUM_TEXT(KAY_RESOURCE_CONFIRMED),
};

constexpr enum_text sa_state_names[] = {
    ENUM_TEXT(KAY_SA_PRIMARY),
    ENUM_TEXT(KAY_SA_DISPOSING),
};

constexpr enum_text validate_frames_names[] = {
    ENUM_TEXT(OXHAL_MACSEC_VALIDATE_FRAMES_DISABLED),
    ENUM_TEXT(OXHAL_MACSEC_VALIDATE_FRAMES_STRICT),
    ENUM_TEXT(OXHAL_MACSEC_VALIDATE_FRAMES_CHECK),
};

constexpr enum_text message_names[] = {
    ENUM_TEXT(KAY_SA_DISPOSAL_TIMEOUT_IND),
};

template<class Channel>
Channel* find_channel(const kay_record& kay, record_list<Channel>& channels, const sci& identifier) {
    Channel* found = channels.find([&](const Channel& sc) { return sc.identifier == identifier; });
    if (!found)
        TRACE("TAVU: Could not find %s",
              object_name(kay, Channel::direction, sci_to_str2(identifier)).c_str());
    return found;
}

} // namespace

const char* object_name::c_str() const {
    int length = snprintf(text_, sizeof text_, "port '%s'::%s SC (sci='%s')", port_, direction_, sci_text_);
    if (an_ != no_an && length > 0 && static_cast<size_t>(length) < sizeof text_)
        snprintf(text_ + length, sizeof text_ - static_cast<size_t>(length), "::%s SA (an=%u)", direction_,
                 static_cast<unsigned>(an_));
    return text_;
}

const char* global_state_to_str(global_state state) {
    return enum_to_str(global_state_names, state);
}
const char* state_to_str(kay_state state) {
    return enum_to_str(state_names, state);
}
const char* resource_state_to_str(resource_state state) {
    return enum_to_str(resource_state_names, state);
}
const char* sa_state_to_str(sa_state state) {
    return enum_to_str(sa_state_names, state);
}
const char* validate_frames_to_str(uint32_t validate_frames) {
    return enum_to_str(validate_frames_names, validate_frames);
}
const char* msg_no_to_str(uint32_t number) {
    return enum_to_str(message_names, number);
}

kay_record* find_kay_by_port_name(const char* name) {
    TAVU_FUNCTION();
    kay_record* found = self.kays.find([&](const kay_record& kay) { return kay.port == name; });
    if (!found)
        TRACE("TAVU: Could not find KaY with port name '%s'", name);
    return found;
}

kay_record* find_kay_by_mka_client_id(uint32_t client_id) {
    TAVU_FUNCTION();
    kay_record* found = self.kays.find([&](const kay_record& kay) { return kay.mka_client_id == client_id; });
    if (!found)
        TRACE("TAVU: Could not find KaY with MKA client id %u", client_id);
    return found;
}

tx_sc* find_tx_sc(kay_record& kay, const sci& identifier) {
    TAVU_FUNCTION();
    return find_channel(kay, kay.tx_scs, identifier);
}

rx_sc* find_rx_sc(kay_record& kay, const sci& identifier) {
    TAVU_FUNCTION();
    return find_channel(kay, kay.rx_scs, identifier);
}

tx_sc* find_tx_sc_by_proc_ref(kay_record& kay, uint32_t procedure_reference) {
    TAVU_FUNCTION();
    tx_sc* found =
        kay.tx_scs.find([&](const tx_sc& sc) { return sc.procedure_reference == procedure_reference; });
    if (!found)
        TRACE("TAVU: Could not find TX SC with proc_ref %u", procedure_reference);
    return found;
}

tx_sa* find_first_tx_sa(tx_sc& sc) {
    TAVU_FUNCTION();
    return sc.associations.first();
}

rx_sa* find_rx_sa(const kay_record& kay, rx_sc& sc, uint8_t an) {
    TAVU_FUNCTION();
    rx_sa* found = sc.associations.find([&](const rx_sa& sa) { return sa.an == an; });
    if (!found)
        TRACE("TAVU: Could not find %s", object_name(kay, sc, an).c_str());
    return found;
}

unsigned get_number_of_tx_sc(const kay_record& kay) {
    TAVU_FUNCTION();
    unsigned count = kay.tx_scs.size();
    TRACE("TAVU: Total number of TX SCs on port '%s' = %u", kay.port.c_str(), count);
    return count;
}

unsigned get_number_of_rx_sc(const kay_record& kay) {
    TAVU_FUNCTION();
    unsigned count = kay.rx_scs.size();
    TRACE("TAVU: Total number of RX SCs on port '%s' = %u, maximum number of RX SCs = %u", kay.port.c_str(),
          count, kay_max_rx_scs);
    return count;
}

unsigned get_number_of_rx_sa(const kay_record& kay, const rx_sc& sc) {
    TAVU_FUNCTION();
    unsigned count = sc.associations.size();
    TRACE("TAVU: Total number of RX SAs on %s = %u, maximum number of RX SAs = %u",
          object_name(kay, sc).c_str(), count, kay_max_rx_sas);
    return count;
}

void change_global_state(global_state state) {
    TAVU_FUNCTION();
    TRACE_STATE_CHANGE("TAVU: KaY changing global state: '%s' -> '%s'", global_state_to_str(self.state),
                       global_state_to_str(state));
    self.state = state;
}

void change_state(kay_record& kay, kay_state state) {
    TAVU_FUNCTION();
    TRACE_STATE_CHANGE("TAVU: KaY of port '%s' changing state: '%s' -> '%s'", kay.port.c_str(),
                       state_to_str(kay.state), state_to_str(state));
    kay.state = state;
}

void change_sa_state(const kay_record& kay, const rx_sc& sc, rx_sa& sa, sa_state state) {
    TAVU_FUNCTION();
    TRACE_STATE_CHANGE("TAVU: %s changing state: '%s' -> '%s'", object_name(kay, sc, sa.an).c_str(),
                       sa_state_to_str(sa.state), sa_state_to_str(state));
    sa.state = state;
}

void change_port_valid(kay_record& kay, bool port_valid) {
    TAVU_FUNCTION();
    TRACE_STATE_CHANGE("TAVU: Changing port_valid of port '%s': '%s' -> '%s'", kay.port.c_str(),
                       bool_to_str(kay.port_valid), bool_to_str(port_valid));
    kay.port_valid = port_valid;
}

void change_cp_oper_state(kay_record& kay, kay_cp_oper_state state) {
    TAVU_FUNCTION();
    TRACE_STATE_CHANGE("TAVU: Changing controlled port operational state of port '%s': '%s' -> '%s'",
                       kay.port.c_str(), cp_oper_state_to_str(kay.cp_oper_state),
                       cp_oper_state_to_str(state));
    kay.cp_oper_state = state;
    TRACE_INFO("TAVU: Port '%s' has new MACsec controlled port operational state: '%s'", kay.port.c_str(),
               cp_oper_state_to_str(state));
}

void change_role(kay_record& kay, macsec_role role) {
    TAVU_FUNCTION();
    TRACE_STATE_CHANGE("TAVU: Changing MACsec role of port '%s': '%s' -> '%s'", kay.port.c_str(),
                       kay_macsec_role_to_str(kay.role), kay_macsec_role_to_str(role));
    kay.role = role;
    TRACE("TAVU: Port '%s' has new MACsec role: '%s'", kay.port.c_str(), kay_macsec_role_to_str(role));
}

void change_encryption_state(kay_record& kay, macsec_encryption_state state) {
    TAVU_FUNCTION();
    TRACE_STATE_CHANGE("TAVU: Changing encryption state of port '%s': '%s' -> '%s'", kay.port.c_str(),
                       macsec_encryption_state_to_str(kay.encryption_state),
                       macsec_encryption_state_to_str(state));
    kay.encryption_state = state;
    TRACE_INFO("TAVU: Port '%s' has new MACsec encryption state: '%s'", kay.port.c_str(),
               macsec_encryption_state_to_str(state));
}

} // namespace kay_internal

const char* kay_macsec_role_to_str(macsec_role role) {
    return enum_to_str(kay_internal::role_names, role);
}
const char* cp_oper_state_to_str(kay_cp_oper_state state) {
    return enum_to_str(kay_internal::cp_oper_state_names, state);
}
const char* macsec_encryption_state_to_str(macsec_encryption_state state) {
    return enum_to_str(kay_internal::encryption_state_names, state);
}

} // namespace tavu
