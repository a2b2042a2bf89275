// The MACsec service's state: its clients, and where the module stands.
#pragma once

#include "base/client_registry.h"
#include "tavu/oxmsi/oxmsi_server.h"

namespace tavu::oxmsi_server {

using client_record = registered_client;

struct module_data {
    oxmsi_server_state state = OXMSI_SERVER_STATE_UNINITIALIZED;
    oka_mailbox own_mailbox = OKA_MAILBOX_NONE;
    oka_mailbox server_mailbox = OKA_MAILBOX_NONE; // the published one
    oxmsi_callbacks callbacks = {};
    client_registry<client_record> clients{oxmsi_max_clients};
};
extern module_data self;

const char* state_to_str(oxmsi_server_state state);
void change_state(oxmsi_server_state state);

// Lookups: null, after a trace, when there is none.
client_record* find_client(uint32_t client_id);
client_record* find_client_by_client_ref(oka_mailbox mailbox, uint32_t connection_reference);
client_record* get_first_client_with_mailbox(oka_mailbox mailbox);

// The lowest id that is free; 0, after an error trace, when all are taken.
uint32_t allocate_client_id();
client_record* add_client(uint32_t id, oka_mailbox mailbox, uint32_t connection_reference,
                          uint32_t protocol_version);
void delete_client(client_record& client);
void clear_data();

} // namespace tavu::oxmsi_server
