// Answers about a connection, which go out in every state, to the mailbox that asked.
#pragma once

#include "tavu/oxmsi/oxmsi_server_records.h"

namespace tavu::oxmsi_server {

void send_oxmsi_connection_establish_cfm(const client_record& client, uint32_t procedure_reference);
void send_oxmsi_connection_establish_rej(oka_mailbox receiver, uint32_t connection_reference,
                                         uint32_t procedure_reference, uint32_t reason);
void send_oxmsi_connection_close_cfm(oka_mailbox receiver, const client_record& client,
                                     uint32_t procedure_reference);
void send_oxmsi_capabilities_get_ref(oka_mailbox receiver, const client_record& client,
                                     uint32_t procedure_reference);

} // namespace tavu::oxmsi_server
