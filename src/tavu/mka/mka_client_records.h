// The MKA client's state, and the steps that every handler takes. The link to the key server
// (mka_client_link) ends where the client has joined its CA; what the key server and the KaY have to say to
// each other then is relayed by mka_client_requests.
#pragma once

#include "base/record_list.h"
#include "tavu/mka/mka_client.h"
#include "tavu/mka/mka_heartbeat.h"

namespace tavu::mka_client_internal {

enum global_state : uint32_t {
    MKA_GLOBAL_STATE_UNINITIALIZED = 0,
    MKA_GLOBAL_STATE_INITIALIZED = 1,
    MKA_GLOBAL_STATE_READY = 2,
};

enum client_state : uint32_t {
    MKA_STATE_CREATED = 0,
    MKA_STATE_LOCATING = 1,
    MKA_STATE_CONNECTION_ESTABLISH = 2,
    MKA_STATE_GET_CAPABILITIES = 3,
    MKA_STATE_JOIN_CA = 4,
    MKA_STATE_JOINED = 5,
    MKA_STATE_CA_LEFT = 6,
};

struct client {
    uint32_t id;
    ca_name ca;
    uint32_t port_speed;
    bool has_capabilities;
    mka_802_1ae_2006_capabilities capabilities;
    client_state state;
    uint32_t server_connection_reference; // 0 while not connected
    uint32_t protocol_version;
    mka_heartbeat heartbeat;
    oka_mailbox own_mailbox;
    text<32> mailbox_name;
    oka_mailbox server_mailbox;
    oka_monitor_ref monitor; // of the server's mailbox
};

using relay = void (*)(uint32_t client_id, const oka_message* message);

struct module {
    global_state state = MKA_GLOBAL_STATE_UNINITIALIZED;
    oka_mailbox parent = OKA_MAILBOX_NONE;
    mka_client_callbacks callbacks = {};
    record_list<client> clients;
};
extern module self;

const char* global_state_to_str(global_state state);
const char* state_to_str(client_state state);
const char* msg_no_to_str(uint32_t number);

// Null when nobody has the id; leaves it to the caller to say so.
client* find_mka_data_by_id(uint32_t id);
void change_global_state(global_state state);
void change_state(client& changed, client_state state);

// The client that a message is for, by its connection reference, which the server sets to the client's id.
// Null after an error trace. Only for a message that has a whole header.
client* addressee(const oka_message* message);
// The same for messages of a fixed size, which is checked first.
client* accept(const oka_message* message, uint32_t size);
// And for those that are welcome in one state alone. The trace of a wrong one names the calling handler.
client* accept(const oka_message* message, uint32_t size, client_state expected,
               const char* handler = __builtin_FUNCTION());

// Calls the KaY. `event` is a callback's name without its "handle_". The KaY may delete its client from
// inside: nobody touches the client afterwards.
#define MKA_CLIENT_FIRE(from, event, message)                                                                \
    ::tavu::mka_client_internal::fire(from, "fire_handle_" #event,                                           \
                                      ::tavu::mka_client_internal::self.callbacks.handle_##event, message)
void fire(const client& from, const char* function, relay callback, const oka_message* message);
void fire_handle_mka_client_ca_left_ind(const client& from);

// The end of every sender.
template<class T>
void send_to_server(const client& from, outgoing<T>& message, uint32_t procedure_reference) {
    header_of(message).procedure_reference = procedure_reference;
    header_of(message).connection_reference = from.server_connection_reference;
    TRACE_SEND(message, from.server_mailbox, "TAVU: %s connection reference=%u, procedure reference=%u",
               msg_no_to_str(message.number()), from.server_connection_reference, procedure_reference);
    message.send(from.server_mailbox, from.own_mailbox);
}
// For messages that are a header alone.
void send_header(const client& from, uint32_t number, uint32_t procedure_reference);

} // namespace tavu::mka_client_internal
