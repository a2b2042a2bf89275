// Searches for mailboxes in a TIPC cluster: subscriptions at the kernel's topology server, which tells of
// every socket that is published at an address, those that are there already first.
#pragma once

#include <linux/tipc.h>

#include "platform/oka/core/core.h"

namespace oka {

// Goes on until answer_locate or cancel_tipc_search. `unit` is "" for the own one.
void start_tipc_search(uint32_t locate, const char* unit, const char* name);
void cancel_tipc_search(uint32_t locate);
void set_searching_unit(const char* unit);

// How many sockets of one node are published at an address now.
uint32_t count_publications(const tipc_service_addr& service, uint32_t node);

} // namespace oka
