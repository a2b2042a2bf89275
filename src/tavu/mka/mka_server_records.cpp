#include "tavu/mka/mka_server_records.h"

#include "base/enum_text.h"
#include "base/trace.h"

namespace tavu::mka_server_internal {

module self;

namespace {

constexpr enum_text global_state_names[] = {
    ENUM_TEXT(GLOBAL_STATE_UNINITIALIZED),
    ENUM_TEXT(GLOBAL_STATE_INITIALIZED),
    ENUM_TEXT(GLOBAL_STATE_READY),
};

} // namespace

const char* global_state_to_str(global_state state) {
    return enum_to_str(global_state_names, state);
}

const char* msg_no_to_str(uint32_t number) {
    return mka_msg_no_to_str(number, MKA_SERVER_HEARTBEAT_TIMEOUT_IND);
}

void change_state(global_state state) {
    TAVU_FUNCTION();
    TRACE_STATE_CHANGE("TAVU: Global state changed: '%s' -> '%s'", global_state_to_str(self.state),
                       global_state_to_str(state));
    self.state = state;
}

client* find_mka_data_by_id(uint32_t id) {
    TAVU_FUNCTION();
    return self.clients.find(id);
}

client* find_or_trace(uint32_t id) {
    client* found = find_mka_data_by_id(id);
    if (!found)
        TRACE_ERROR("TAVU: Could not find client with client id = %u", id);
    return found;
}

client* sender_of(const oka_message* message) {
    const message_header& header = as<message_header>(message);
    TRACE_RECEIVE(message, "TAVU: %s connection reference=%u, procedure reference=%u",
                  msg_no_to_str(message->number), uint32_t{header.connection_reference},
                  uint32_t{header.procedure_reference});
    client* from = find_or_trace(header.connection_reference);
    return from && verify_sender(message, from->mailbox, msg_no_to_str(message->number)) ? from : nullptr;
}

void fire(uint32_t client_id, const char* function, relay callback, const oka_message* message) {
    const function_trace function_trace_here("TAVU", function, __FILE__, __LINE__);
    TRACE_INFO("TAVU: Firing %s for client client id = %u", function + strlen("fire_"), client_id);
    callback(client_id, message);
}

void send_header(const client& to, uint32_t number, uint32_t procedure_reference) {
    outgoing<message_header> message(number);
    send(to, message, procedure_reference);
}

void send_rej(oka_mailbox receiver, uint32_t number, uint32_t connection_reference,
              uint32_t procedure_reference, uint32_t reason) {
    outgoing<mka_rej> message(number);
    message->header.procedure_reference = procedure_reference;
    message->header.connection_reference = connection_reference;
    message->reason = reason;
    TRACE_SEND(message, receiver, "TAVU: %s connection reference=%u, procedure reference=%u, reason='%s'",
               msg_no_to_str(number), connection_reference, procedure_reference, mka_error_to_str(reason));
    message.send(receiver, self.own_mailbox);
}

} // namespace tavu::mka_server_internal
