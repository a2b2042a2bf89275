// The key server's state, all of it: the CAs that this unit hosts, their members and SAKs, and where the
// module stands. The rooms above it, each built on those before:
//   key_server_requests   what is sent to members, and the requests whose confirmation is awaited
//   key_server_ending     all that ends a membership
//   key_server_admission  how a client becomes a member and its channels are made known
//   key_server_keying     SAKs, the steps of their distribution, and their refresh
//   key_server            life cycle and dispatch
//
// Dropping a CA's members frees them, their channels and their waiting messages; the CA itself stays.
// Deleting the CA frees it with its SAK records.
#pragma once

#include "base/enum_text.h"
#include "base/record_list.h"
#include "base/state_changes.h"
#include "base/trace.h"
#include "platform/oka_timer.h"
#include "protocols/mka_messages.h"
#include "tavu/key_server/key_server.h"
#include "tavu/mka/mka_server.h"

namespace tavu::keysrv {

enum ca_state {
    CA_EMPTY = 0,
    CA_INCOMPLETE = 1,
    CA_OPERATIONAL = 2,
};

enum ca_member_state {
    CA_MEMBER_STATE_INITIAL = 0,
    CA_MEMBER_STATE_JOINED = 1,
    CA_MEMBER_STATE_SELF_ANNOUNCED = 2, // its transmit channel is known
    CA_MEMBER_STATE_CONFIGURED_SC = 3,  // it has its first receive channel
    CA_MEMBER_STATE_CONFIGURED_SA = 4,  // it has its transmit key
    CA_MEMBER_STATE_SECURED = 5,        // it protects frames
    CA_MEMBER_STATE_FAILED = 6,
};

enum key_refresh_state {
    KEY_REFRESH_STOPPED = 0,
    KEY_REFRESH_IDLE = 1,
    KEY_REFRESH_ONGOING = 2,
};

// The allowed changes of each state variable.
constexpr uint32_t ca_state_changes[] = {
    to(CA_INCOMPLETE), to(CA_OPERATIONAL) | to(CA_EMPTY),
    0, // CA_OPERATIONAL is never left
};
constexpr uint32_t ca_member_state_changes[] = {
    to(CA_MEMBER_STATE_JOINED) | to(CA_MEMBER_STATE_FAILED),
    to(CA_MEMBER_STATE_SELF_ANNOUNCED) | to(CA_MEMBER_STATE_FAILED),
    to(CA_MEMBER_STATE_CONFIGURED_SC) | to(CA_MEMBER_STATE_FAILED),
    to(CA_MEMBER_STATE_CONFIGURED_SA) | to(CA_MEMBER_STATE_FAILED),
    to(CA_MEMBER_STATE_SECURED) | to(CA_MEMBER_STATE_FAILED),
    to(CA_MEMBER_STATE_FAILED),
    to(CA_MEMBER_STATE_INITIAL),
};
constexpr uint32_t key_refresh_state_changes[] = {
    to(KEY_REFRESH_ONGOING),
    to(KEY_REFRESH_STOPPED) | to(KEY_REFRESH_ONGOING),
    to(KEY_REFRESH_STOPPED) | to(KEY_REFRESH_IDLE),
};

constexpr sci null_sci = {{0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff}};
constexpr uint32_t number_of_ans = 4;

// One SAK per announced SCI. The record outlives the membership: when the CA is formed again, its owner takes
// it up where it was left, so that an AN is not used for two keys in a row.
struct sak_record {
    sci identifier; // of the transmitting member
    mka_sa_parameters sa;
    bool tx_configured; // the key's requests were sent
    bool rx_configured;
    bool taken_up; // its owner is a member that has its receive channel
};

// Of every CA: all members can use it.
constexpr mka_cipher cipher_of_cas = MKA_CIPHER_GCM_AES_128;

struct connectivity_association {
    ca_name name;
    ca_state state;
    oka_timer_ref key_refresh_timer;
    key_refresh_state refresh_state;
    record_list<sak_record> saks{"KEYSRV"};
    mka_cipher cipher;
};

// Whether the associations of a channel are confirmed, by AN; the current one is that of the newest key.
struct channel_associations {
    uint32_t current_an;
    bool confirmed[number_of_ans];

    bool& current_confirmed() { return confirmed[current_an]; }
};

struct rx_sc {
    sci identifier; // of the peer that transmits
    bool confirmed;
    channel_associations sas;
};

struct ca_member {
    uint32_t client_id; // the MKA server's
    sci identifier;     // the null SCI until announced
    ca_name ca;
    ca_member_state state;
    uint32_t standard;
    uint32_t key_len; // in octets
    uint32_t num_of_rx_scs;
    record_list<rx_sc> rx_scs{"KEYSRV"};
    channel_associations tx_sas;
    bool protect_frames_confirmed; // false while a request is outstanding
};

// A request whose confirmation is awaited.
struct waiting_msg {
    uint32_t client_id;
    uint32_t procedure_reference;
    uint32_t message_number;
    oka_timer_ref timer;
};

struct key_server_state {
    keysrv_global_state state = KEYSRV_GLOBAL_STATE_UNINITIALIZED;
    key_server_callbacks callbacks = {};
    record_list<connectivity_association> cas{"KEYSRV"};
    record_list<ca_member> members{"KEYSRV"};
    record_list<waiting_msg> waiting_msgs{"KEYSRV"};
    uint32_t key_name_counter = 0; // goes into every key's name, of all CAs; never starts anew
};
extern key_server_state self;

// --- Look-ups

// The members of one CA, the newest first.
class members_of {
  public:
    class iterator {
      public:
        iterator(record_list<ca_member>& list, const ca_name& ca) : at_(list), ca_(ca) { skip_others(); }
        ca_member& operator*() const { return *at_; }
        iterator& operator++() {
            ++at_;
            skip_others();
            return *this;
        }
        bool operator!=(std::nullptr_t) const { return at_ != nullptr; }

      private:
        void skip_others() {
            while (at_ != nullptr && !((*at_).ca == ca_))
                ++at_;
        }
        record_list<ca_member>::iterator at_;
        const ca_name& ca_;
    };

    explicit members_of(const connectivity_association& ca) : ca_(ca.name) {}
    iterator begin() const { return iterator(self.members, ca_); }
    std::nullptr_t end() const { return nullptr; }

  private:
    const ca_name& ca_;
};

// Whether the condition holds for every member of the CA.
template<class Condition>
bool all_members(const connectivity_association& ca, Condition holds) {
    for (ca_member& member : members_of(ca)) {
        if (!holds(member))
            return false;
    }
    return true;
}

connectivity_association* find_ca_by_name(const ca_name& name);
ca_member* find_ca_member_by_client_id(uint32_t client_id);
ca_member* find_ca_member_by_sci(const ca_name& ca, const sci& identifier);
rx_sc* find_rx_sc_by_sci(ca_member& member, const sci& identifier);
uint32_t get_rx_sc_number(const ca_member& member);
uint32_t get_announced_member_in_ca(const connectivity_association& ca);

// The SCI as eight two-digit octets.
text<24> sci_to_str(const sci& identifier);

// --- States

// The gate of the operations that need the key server READY; traces the name of its caller.
[[nodiscard]] bool is_ready(const char* operation = __builtin_FUNCTION(), const char* file = __builtin_FILE(),
                            int line = __builtin_LINE());
const char* state_to_str(keysrv_global_state state);
void change_ks_state(keysrv_global_state state);
void change_ca_state(connectivity_association& ca, ca_state state);
void change_ca_member_state(ca_member& member, ca_member_state state);
void change_key_refresh_state(connectivity_association& ca, key_refresh_state state);
const char* key_refresh_state_to_str(key_refresh_state state);

// --- CAs and members

[[nodiscard]] bool add_ca(const ca_name& name);
// A zero-filled member, or null when memory is short.
[[nodiscard]] ca_member* add_ca_member();
void remove_ca_members(connectivity_association& ca);
// The members are gone, and their keys with them; the records stay, to be taken up again.
void set_saks_aside(connectivity_association& ca);

void start_key_refresh_timer(connectivity_association& ca);
void stop_key_refresh_timer(connectivity_association& ca);

// --- What is received

const char* ks_msg_no_to_str(uint32_t number);
void trace_received(const oka_message* message);
// The common start of all confirmations and rejections: the member, or null after an error trace. `handler`
// is the calling function.
ca_member* find_answering_member(uint32_t client_id, const oka_message* message,
                                 const char* handler = __builtin_FUNCTION());

} // namespace tavu::keysrv
