// What the two files of the MACsec service share: its clients, and the answers about a connection.
#pragma once

#include "base/record_list.h"
#include "tavu/oxmsi/oxmsi_server.h"

namespace tavu::oxmsi_server {

struct client_record {
    uint32_t id;
    oka_mailbox mailbox;
    oka_monitor_ref monitor;       // shared by all clients of one mailbox
    uint32_t connection_reference; // the client's own, which every answer carries
    uint32_t protocol_version;
};

struct module_data {
    oxmsi_server_state state = OXMSI_SERVER_STATE_UNINITIALIZED;
    oka_mailbox own_mailbox = OKA_MAILBOX_NONE;
    oka_mailbox server_mailbox = OKA_MAILBOX_NONE; // the published one
    oxmsi_callbacks callbacks = {};
    record_list<client_record> clients;
};
extern module_data self;

const char* state_to_str(oxmsi_server_state state);
client_record* find_client(uint32_t client_id);

// Answers about the connection itself go out in every state, to whoever asked.
void send_oxmsi_connection_establish_cfm(const client_record& client, uint32_t procedure_reference);
void send_oxmsi_connection_establish_rej(oka_mailbox receiver, uint32_t connection_reference,
                                         uint32_t procedure_reference, uint32_t reason);
void send_oxmsi_connection_close_cfm(const client_record& client, uint32_t procedure_reference);
void send_oxmsi_capabilities_get_ref(const client_record& client, uint32_t procedure_reference);

} // namespace tavu::oxmsi_server
