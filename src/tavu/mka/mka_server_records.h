// The MKA server's state, and the ways down to a client and up to the key server. The links to the clients
// (mka_server_link) are the server's own business; what it relays between clients and key server stands in
// mka_server (up) and mka_server_requests (down).
#pragma once

#include "base/client_registry.h"
#include "tavu/mka/mka_heartbeat.h"
#include "tavu/mka/mka_server.h"

namespace tavu::mka_server_internal {

enum global_state : uint32_t {
    GLOBAL_STATE_UNINITIALIZED = 0,
    GLOBAL_STATE_INITIALIZED = 1,
    GLOBAL_STATE_READY = 2,
};

struct client : registered_client {
    mka_heartbeat heartbeat;
    bool is_silent; // its heartbeat has timed out
    bool is_member; // of a CA
};

struct module {
    global_state state = GLOBAL_STATE_UNINITIALIZED;
    oka_mailbox parent = OKA_MAILBOX_NONE;
    oka_mailbox own_mailbox = OKA_MAILBOX_NONE;
    text<32> server_name = {};
    mka_server_callbacks callbacks = {};
    client_registry<client> clients{mka_server_max_clients};
};
extern module self;

const char* global_state_to_str(global_state state);
const char* msg_no_to_str(uint32_t number);
void change_state(global_state state);

// Null when there is none; leaves it to the caller to say so.
client* find_mka_data_by_id(uint32_t id);
// Null, after an error trace, when there is none.
client* find_or_trace(uint32_t id);
// The client that a message whose size was checked is from, by its connection reference and its mailbox. Null
// after an error trace.
client* sender_of(const oka_message* message);

// Calls the key server. `function` is "fire_" and the callback's name.
using relay = void (*)(uint32_t client_id, const oka_message* message);
void fire(uint32_t client_id, const char* function, relay callback, const oka_message* message);

// The end of every sender.
template<class T>
void send(oka_mailbox receiver, outgoing<T>& message, uint32_t connection_reference,
          uint32_t procedure_reference) {
    header_of(message).procedure_reference = procedure_reference;
    header_of(message).connection_reference = connection_reference;
    TRACE_SEND(message, receiver, "TAVU: %s connection reference=%u, procedure reference=%u",
               msg_no_to_str(message.number()), connection_reference, procedure_reference);
    message.send(receiver, self.own_mailbox);
}
template<class T>
void send(const client& to, outgoing<T>& message, uint32_t procedure_reference) {
    send(to.mailbox, message, to.connection_reference, procedure_reference);
}
void send_header(const client& to, uint32_t number, uint32_t procedure_reference);
// Also to those who did not become clients.
void send_rej(oka_mailbox receiver, uint32_t number, uint32_t connection_reference,
              uint32_t procedure_reference, uint32_t reason);

} // namespace tavu::mka_server_internal
