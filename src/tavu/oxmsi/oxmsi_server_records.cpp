#include "tavu/oxmsi/oxmsi_server_records.h"

#include "base/enum_text.h"
#include "base/trace.h"

namespace tavu::oxmsi_server {

module_data self;

namespace {

constexpr enum_text state_names[] = {
    ENUM_TEXT(OXMSI_SERVER_STATE_UNINITIALIZED),
    ENUM_TEXT(OXMSI_SERVER_STATE_INITIAL),
    ENUM_TEXT(OXMSI_SERVER_STATE_STARTED),
    ENUM_TEXT(OXMSI_SERVER_STATE_READY),
};

} // namespace

const char* state_to_str(oxmsi_server_state state) {
    return enum_to_str(state_names, state);
}

void change_state(oxmsi_server_state state) {
    TAVU_FUNCTION();
    TRACE_STATE_CHANGE("TAVU: State changed: '%s' -> '%s'", state_to_str(self.state), state_to_str(state));
    self.state = state;
}

client_record* find_client(uint32_t client_id) {
    TAVU_FUNCTION();
    client_record* client = self.clients.find(client_id);
    if (client)
        TRACE("TAVU: client id=%u found", client_id);
    else
        TRACE("TAVU: Could not find client id=%u", client_id);
    return client;
}

client_record* find_client_by_client_ref(oka_mailbox mailbox, uint32_t connection_reference) {
    TAVU_FUNCTION();
    client_record* client = self.clients.find(mailbox, connection_reference);
    if (!client)
        TRACE("TAVU: Client client mailbox id=%u, client connection reference=%u does not exist", mailbox,
              connection_reference);
    return client;
}

client_record* get_first_client_with_mailbox(oka_mailbox mailbox) {
    TAVU_FUNCTION();
    client_record* client = self.clients.newest_of(mailbox);
    if (client)
        TRACE("TAVU: Client client mailbox id=%u found", mailbox);
    else
        TRACE("TAVU: Client client mailbox id=%u does not exist", mailbox);
    return client;
}

uint32_t allocate_client_id() {
    TAVU_FUNCTION();
    uint32_t id = self.clients.free_id();
    if (id != 0)
        TRACE("TAVU: client id=%u is allocated", id);
    else
        TRACE_ERROR("TAVU: Maximum number of clients=%u reached", oxmsi_max_clients);
    return id;
}

namespace {

oka_monitor_ref monitor_client(const client_record& client) {
    TAVU_FUNCTION();
    TRACE("TAVU: Start monitoring clients client mailbox id=%u", client.mailbox);
    outgoing<host32> message(OXMSI_CLIENT_DOWN_IND);
    return oka_monitor(client.mailbox, message.prepared());
}

void unmonitor_client(oka_mailbox mailbox, oka_monitor_ref monitor) {
    TAVU_FUNCTION();
    oka_unmonitor(monitor);
    TRACE("TAVU: Stop monitoring clients client mailbox id=%u", mailbox);
}

} // namespace

client_record* add_client(uint32_t id, oka_mailbox mailbox, uint32_t connection_reference,
                          uint32_t protocol_version) {
    TAVU_FUNCTION();
    client_record* client =
        self.clients.add(id, mailbox, connection_reference, protocol_version, monitor_client);
    if (client)
        TRACE("TAVU: Client client mailbox id=%u, client id=%u, client connection reference=%u is added",
              mailbox, id, connection_reference);
    return client;
}

void delete_client(client_record& client) {
    TAVU_FUNCTION();
    TRACE("TAVU: Deleting client client mailbox id=%u, client id=%u, client connection reference=%u",
          client.mailbox, client.id, client.connection_reference);
    self.clients.remove(client, unmonitor_client);
}

void clear_data() {
    TAVU_FUNCTION();
    while (client_record* client = self.clients.newest())
        delete_client(*client);
}

} // namespace tavu::oxmsi_server
