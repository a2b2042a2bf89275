// What the KaY module keeps of each port: the KaY itself, its transmit channel and the receive channels of
// its peers, and their associations. Every record mirrors something that is installed in the port's SecY;
// keys are in none of them. Internal to the module's files, as are kay_channels.h, kay_status.h and
// kay_events.h.
#pragma once

#include "base/ignore_result.h"
#include "base/record_list.h"
#include "platform/oka_timer.h"
#include "protocols/mka_messages.h"
#include "tavu/kay/kay.h"

namespace tavu::kay_internal {

enum kay_state : uint32_t {
    KAY_STATE_CREATED = 0,
    KAY_STATE_UNAUTHENTICATED = 1,
    KAY_STATE_CA_JOIN_PENDING = 2,
    KAY_STATE_CA_JOINED = 3,
    KAY_STATE_FAILED = 4,
};

// Whether the key server knows the transmit channel.
enum resource_state : uint32_t {
    KAY_RESOURCE_REQUESTED = 0,
    KAY_RESOURCE_CONFIRMED = 1,
};

// The newest association of a receive channel is its primary; the older ones are kept for the frames that are
// still on their way, until the primary's disposal timer expires.
enum sa_state : uint32_t {
    KAY_SA_PRIMARY = 0,
    KAY_SA_DISPOSING = 1,
};

struct tx_sa {
    uint8_t an;
    mka_cipher cipher;
    sak_name key_name; // the key server's name of the key
};

struct tx_sc {
    static constexpr const char* direction = "TX";

    sci identifier;
    char sci_text[128];
    resource_state state;
    uint32_t procedure_reference; // of the request that announced it
    record_list<tx_sa> associations;
};

struct rx_sa {
    uint8_t an;
    sa_state state;
    mka_cipher cipher;
    sak_name key_name;
    oka_timer_ref disposal_timer; // 0: none runs
};

struct rx_sc {
    static constexpr const char* direction = "RX";

    sci identifier;
    char sci_text[128];
    record_list<rx_sa> associations;
};

struct kay_record {
    port_name port;
    uint32_t port_handle;
    macsec_role role;
    kay_state state;
    uint32_t mka_client_id;   // 0: none
    text<64> key_server_name; // cut: for traces, the MKA client was given the whole
    ca_name ca;
    mka_standard standard; // of the CA that was joined
    bool cipher_set;
    mka_cipher cipher; // the port's, once one was accepted
    kay_configuration_options options;
    bool protect_frames; // as the key server set it last
    bool protect_frames_initialised;
    bool port_valid;
    kay_cp_oper_state cp_oper_state;
    macsec_encryption_state encryption_state;
    bool macsec_supported;
    mka_802_1ae_2006_capabilities capabilities;
    record_list<tx_sc> tx_scs;
    record_list<rx_sc> rx_scs;
};

enum global_state : uint32_t {
    GLOBAL_STATE_UNINITIALIZED = 0,
    GLOBAL_STATE_INITIALIZED = 1,
    GLOBAL_STATE_READY = 2,
};

struct kay_module {
    global_state state = GLOBAL_STATE_UNINITIALIZED;
    kay_callbacks callbacks = {};
    record_list<kay_record> kays;
};
extern kay_module self;

// What traces call a channel or an association, "port 'IDL_A1'::TX SC (sci='SCI = ...')::TX SA (an=1)". It is
// put together only when a trace asks for it.
class object_name {
  public:
    static constexpr int no_an = -1;

    template<class Channel>
    object_name(const kay_record& kay, const Channel& sc, int an = no_an)
        : object_name(kay, Channel::direction, sc.sci_text, an) {}
    object_name(const kay_record& kay, const char* direction, const char* sci_text, int an = no_an)
        : port_(kay.port.c_str()), direction_(direction), sci_text_(sci_text), an_(an) {}

    const char* c_str() const;

  private:
    const char* port_;
    const char* direction_;
    const char* sci_text_;
    int an_;
    mutable char text_[224];
};

const char* global_state_to_str(global_state state);
const char* state_to_str(kay_state state);
const char* resource_state_to_str(resource_state state);
const char* sa_state_to_str(sa_state state);
const char* validate_frames_to_str(uint32_t validate_frames);
const char* msg_no_to_str(uint32_t number);

// Lookups: null, after a trace, when there is none. Channels are found by their SCI, byte for byte.
kay_record* find_kay_by_port_name(const char* name);
kay_record* find_kay_by_mka_client_id(uint32_t client_id);
tx_sc* find_tx_sc(kay_record& kay, const sci& identifier);
tx_sc* find_tx_sc_by_proc_ref(kay_record& kay, uint32_t procedure_reference);
rx_sc* find_rx_sc(kay_record& kay, const sci& identifier);
// The association that is in use: the newest.
tx_sa* find_first_tx_sa(tx_sc& sc);
rx_sa* find_rx_sa(const kay_record& kay, rx_sc& sc, uint8_t an);

unsigned get_number_of_tx_sc(const kay_record& kay);
unsigned get_number_of_rx_sc(const kay_record& kay);
unsigned get_number_of_rx_sa(const kay_record& kay, const rx_sc& sc);

// The only places where these values change; each traces old and new.
void change_global_state(global_state state);
void change_state(kay_record& kay, kay_state state);
void change_sa_state(const kay_record& kay, const rx_sc& sc, rx_sa& sa, sa_state state);
void change_port_valid(kay_record& kay, bool port_valid);
void change_cp_oper_state(kay_record& kay, kay_cp_oper_state state);
void change_role(kay_record& kay, macsec_role role);
void change_encryption_state(kay_record& kay, macsec_encryption_state state);

} // namespace tavu::kay_internal
