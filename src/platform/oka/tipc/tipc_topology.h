// The kernel's topology server: it tells of every socket that is published at an address, those that are
// there already first. So a search never polls.
#pragma once

#include <cstdint>
#include <linux/tipc.h>

#include "platform/oka/links/family.h"

namespace oka::af_tipc {

// As in the table of a family. The place of a socket is its address in the cluster.
void look(search& of);
void stop_looking(const search& of);

// How many sockets of one node are published at an address now.
uint32_t count_publications(const tipc_service_addr& service, uint32_t node);

} // namespace oka::af_tipc
