// What the key server's files share: its records and what each file does for the others.
//   key_server.cpp          life cycle, dispatch, and all that ends a membership
//   key_server_members.cpp  the lists of CAs and members, their states, dropping
//   key_server_joining.cpp  how a client becomes a member and its channels are made known
//   key_server_keys.cpp     SAKs and their distribution
//   key_server_steps.cpp    what is done when members have confirmed, and when keys have grown old
//   key_server_send.cpp     what is sent to members
//   key_server_waiting.cpp  requests whose confirmation is awaited
//
// Dropping a CA's members frees them, their channels and their waiting messages; the CA itself stays.
// Deleting the CA frees it with its SAK records.
#pragma once

#include <cstring>

#include "base/enum_text.h"
#include "base/record_list.h"
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

// The allowed changes of each state variable: row by row the state that is left, and in it one bit for each
// state that may be entered. Staying is always allowed.
constexpr uint32_t to(uint32_t state) {
    return 1u << state;
}
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

// The octets of a SAK. They are wiped before others take their place and when their record ends.
class secret_key {
  public:
    secret_key() = default;
    ~secret_key() { wipe(); }
    secret_key(const secret_key&) = delete;
    secret_key& operator=(const secret_key& other) {
        if (this != &other)
            memcpy(refill(), other.octets_, sizeof octets_);
        return *this;
    }

    const uint8_t* octets() const { return octets_; }
    // Room for sak_len_max new octets.
    uint8_t* refill() {
        wipe();
        return octets_;
    }
    void wipe() { explicit_bzero(octets_, sizeof octets_); }

  private:
    uint8_t octets_[sak_len_max] = {};
};

// One SAK per announced SCI. The record outlives the membership: when the CA is formed again, its owner takes
// it up where it was left, so that an AN is not used for two keys in a row.
struct sak_record {
    uint32_t key_len; // in bytes
    secret_key key;
    sak_name key_name;
    sci identifier; // of the transmitting member
    uint32_t an;
    bool tx_configured; // the key's requests were sent
    bool rx_configured;
    bool taken_up; // its owner is a member that has its receive channel
};

struct connectivity_association {
    ca_name name;
    ca_state state;
    oka_timer_ref key_refresh_timer;
    key_refresh_state refresh_state;
    record_list<sak_record> saks{"KEYSRV"};
    uint32_t cipher;
    uint32_t ca_parameter; // always 0
};

// An association of a member's channel, as it was last asked for.
struct secure_association {
    uint32_t an;
    bool confirmed;
    bool in_use; // receive associations only
    bool configured;
    uint32_t key_len;
    secret_key key;
    sak_name key_name;
    uint32_t packet_number;
};

struct rx_sc {
    sci identifier; // of the peer that transmits
    bool confirmed;
    uint32_t current_an;
    secure_association sas[number_of_ans];

    secure_association& current_sa() { return sas[current_an]; }
};

struct ca_member {
    uint32_t client_id; // the MKA server's
    sci identifier;     // the null SCI until announced
    ca_name ca;
    ca_member_state state;
    uint32_t port_speed;
    bool protect_frames_confirmed; // false while a request is outstanding
    bool protect_frames;
    uint32_t current_tx_an;
    secure_association tx_sas[number_of_ans];
    record_list<rx_sc> rx_scs{"KEYSRV"};
    uint32_t num_of_rx_scs;
    uint32_t num_of_rx_sas;
    uint32_t standard;
    uint32_t cipher;
    uint32_t key_len;
    bool replay_protection_supported;
    bool confidentiality_offset_supported;
    bool confidentiality_supported;

    secure_association& current_tx_sa() { return tx_sas[current_tx_an]; }
};

// --- key_server.cpp

// The gate of the operations that need the key server READY; traces the name of its caller.
[[nodiscard]] bool is_ready(const char* operation = __builtin_FUNCTION(), const char* file = __builtin_FILE(),
                            int line = __builtin_LINE());
// `key_len` new random octets. False, after an error trace, when there are none.
[[nodiscard]] bool generate_sak(uint32_t key_len, uint8_t* key);
const char* ks_msg_no_to_str(uint32_t number);
void trace_received(const oka_message* message);

// --- key_server_members.cpp

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
    iterator begin() const;
    std::nullptr_t end() const { return nullptr; }

  private:
    const ca_name& ca_;
};

connectivity_association* find_ca_by_name(const ca_name& name);
ca_member* find_ca_member_by_client_id(uint32_t client_id);
ca_member* find_ca_member_by_sci(const ca_name& ca, const sci& identifier);
rx_sc* find_rx_sc_by_sci(ca_member& member, const sci& identifier);
uint32_t get_rx_sc_number(const ca_member& member);
uint32_t get_announced_member_in_ca(const connectivity_association& ca);

[[nodiscard]] bool add_ca(const ca_name& name);
// A zero-filled member, or null when memory is short.
[[nodiscard]] ca_member* add_ca_member();
[[nodiscard]] bool delete_ca(const ca_name& name);
void delete_all_ca();
// Tells all members to leave and frees them. `ca` may be the name in one of them.
void drop_all_ca_members(const ca_name& ca);

void change_ca_state(connectivity_association& ca, ca_state state);
void change_ca_member_state(ca_member& member, ca_member_state state);

// The SCI as eight two-digit octets.
text<24> sci_to_str(const sci& identifier);

// --- key_server_joining.cpp

// In octets; 0, after an error trace, for a cipher suite that there is not.
uint32_t verify_sak_len(uint32_t cipher);

void handle_ks_ca_member_join_ca_req(uint32_t client_id, const oka_message* message);
void handle_ks_ca_member_create_tx_sc_req(uint32_t client_id, const oka_message* message);

// --- key_server_keys.cpp

// The SAK record of a member whose first receive channel is there: a new one, or the one that it had when the
// CA was formed before. False when the member has one already or memory is short.
[[nodiscard]] bool create_sak(connectivity_association& ca, const ca_member& owner);
void delete_saks(connectivity_association& ca);
// The members are gone, and their keys with them; the records stay, to be taken up again.
void set_saks_aside(connectivity_association& ca);
// A new key in every SAK record; false when there is none to be had.
[[nodiscard]] bool update_keys_in_ca(connectivity_association& ca);
void configure_rx_sas_in_ca(connectivity_association& ca);
void configure_tx_sas_in_ca(connectivity_association& ca);
void set_protect_frames_of_ca(const connectivity_association& ca);

// --- key_server_steps.cpp

void change_key_refresh_state(connectivity_association& ca, key_refresh_state state);
void stop_key_refresh_timer(connectivity_association& ca);

void handle_ks_ca_member_create_rx_sc_rcfm(uint32_t client_id, const oka_message* message);
void handle_ks_ca_member_create_rx_sa_rcfm(uint32_t client_id, const oka_message* message);
void handle_ks_ca_member_create_tx_sa_rcfm(uint32_t client_id, const oka_message* message);
void handle_mka_client_update_protect_frames_rcfm(uint32_t client_id, const oka_message* message);
void handle_key_refresh_timeout_ind(const oka_message* message);

// --- key_server_send.cpp

// True when the message was sent and, for requests that await a confirmation, the wait was recorded.
[[nodiscard]] bool ks_send_join_ca_cfm(const ca_member& member, uint32_t procedure_reference,
                                       uint32_t standard);
[[nodiscard]] bool ks_send_join_ca_rej_by_client_id(uint32_t client_id, uint32_t procedure_reference,
                                                    uint32_t reason);
[[nodiscard]] bool ks_send_leave_ca_rreq(const ca_member& member, uint32_t procedure_reference);
[[nodiscard]] bool ks_send_leave_ca_cfm(const ca_member& member, uint32_t procedure_reference);
[[nodiscard]] bool ks_send_create_tx_sc_cfm(const ca_member& member, uint32_t procedure_reference);
[[nodiscard]] bool ks_send_create_tx_sc_rej(const ca_member& member, uint32_t procedure_reference,
                                            uint32_t reason);
[[nodiscard]] bool ks_send_create_rx_sc_rreq(const ca_member& member, const sci& peer,
                                             uint32_t procedure_reference);
[[nodiscard]] bool ks_send_create_rx_sa_rreq(ca_member& member, const sci& peer, uint32_t an,
                                             uint32_t procedure_reference);
[[nodiscard]] bool ks_send_create_tx_sa_rreq(ca_member& member, uint32_t an, uint32_t procedure_reference);
[[nodiscard]] bool ks_send_update_protect_rreq(const ca_member& member, bool protect_frames,
                                               uint32_t procedure_reference);

// --- key_server_waiting.cpp

// False when the record cannot be allocated.
[[nodiscard]] bool create_timeout_on_msg(const ca_member& member, uint32_t message_number,
                                         uint32_t procedure_reference);
void delete_timeout_on_msg(uint32_t client_id, uint32_t procedure_reference);
void delete_all_waiting_msg_for_ca(const connectivity_association& ca);
void delete_all_waiting_msg();
void handle_msg_timeout_ind(const oka_message* message);

} // namespace tavu::keysrv
