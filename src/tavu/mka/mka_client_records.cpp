#include "tavu/mka/mka_client_records.h"

#include "base/enum_text.h"
#include "base/trace.h"

namespace tavu::mka_client_internal {

module self;

namespace {

constexpr enum_text global_state_names[] = {
    ENUM_TEXT(MKA_GLOBAL_STATE_UNINITIALIZED),
    ENUM_TEXT(MKA_GLOBAL_STATE_INITIALIZED),
    ENUM_TEXT(MKA_GLOBAL_STATE_READY),
};

constexpr enum_text state_names[] = {
    ENUM_TEXT(MKA_STATE_CREATED),
    ENUM_TEXT(MKA_STATE_LOCATING),
    ENUM_TEXT(MKA_STATE_CONNECTION_ESTABLISH),
    ENUM_TEXT(MKA_STATE_GET_CAPABILITIES),
    ENUM_TEXT(MKA_STATE_JOIN_CA),
    ENUM_TEXT(MKA_STATE_JOINED),
    ENUM_TEXT(MKA_STATE_CA_LEFT),
};

} // namespace

const char* global_state_to_str(global_state state) {
    return enum_to_str(global_state_names, state);
}
const char* state_to_str(client_state state) {
    return enum_to_str(state_names, state);
}
const char* msg_no_to_str(uint32_t number) {
    return mka_msg_no_to_str(number, MKA_CLIENT_HEARTBEAT_TIMEOUT_IND);
}

client* find_mka_data_by_id(uint32_t id) {
    TAVU_FUNCTION();
    return self.clients.find([&](const client& candidate) { return candidate.id == id; });
}

void change_state(client& changed, client_state state) {
    TAVU_FUNCTION();
    TRACE_STATE_CHANGE("TAVU: Client with client id = %u changing state: '%s' -> '%s'", changed.id,
                       state_to_str(changed.state), state_to_str(state));
    changed.state = state;
}

client* addressee(const oka_message* message) {
    const message_header& header = as<message_header>(message);
    TRACE_RECEIVE(message, "TAVU: %s connection reference=%u, procedure reference=%u",
                  msg_no_to_str(message->number), uint32_t{header.connection_reference},
                  uint32_t{header.procedure_reference});
    client* found = find_mka_data_by_id(header.connection_reference);
    if (!found)
        TRACE_ERROR("TAVU: Could not find client client id = %u", uint32_t{header.connection_reference});
    // Lookups and supervisions, which this process prepared, have the mailbox that was found or lost as
    // sender.
    if (!found || oka_is_prepared(message) ||
        verify_sender(message, found->server_mailbox, msg_no_to_str(message->number)))
        return found;
    return nullptr;
}

client* accept(const oka_message* message, uint32_t size) {
    return verify_msg_length_equals(message, size) ? addressee(message) : nullptr;
}

client* accept(const oka_message* message, uint32_t size, client_state expected, const char* handler) {
    client* found = accept(message, size);
    return found && is_in_state(found->state, expected, state_to_str, "TAVU", handler) ? found : nullptr;
}

void change_global_state(global_state state) {
    TAVU_FUNCTION();
    TRACE_STATE_CHANGE("TAVU: Global state changed: '%s' -> '%s'", global_state_to_str(self.state),
                       global_state_to_str(state));
    self.state = state;
}

void fire(const client& from, const char* function, relay callback, const oka_message* message) {
    const function_trace function_trace_here("TAVU", function, __FILE__, __LINE__);
    TRACE("TAVU: Firing %s for client client id = %u, CA name = '%s'", function + strlen("fire_"), from.id,
          from.ca.c_str());
    callback(from.id, message);
}

void fire_handle_mka_client_ca_left_ind(const client& from) {
    TAVU_FUNCTION();
    TRACE("TAVU: Firing handle_mka_client_ca_left_ind for client client id = %u, CA name = '%s'", from.id,
          from.ca.c_str());
    self.callbacks.handle_mka_client_ca_left_ind(from.id);
}

void send_header(const client& from, uint32_t number, uint32_t procedure_reference) {
    outgoing<message_header> message(number);
    send_to_server(from, message, procedure_reference);
}

} // namespace tavu::mka_client_internal
