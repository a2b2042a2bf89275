// How a mailbox is addressed in a TIPC cluster.
#pragma once

#include <cstdint>
#include <linux/tipc.h>

#include "platform/oka/links/family.h"

namespace oka::af_tipc {

// 64 bits of the names: the service type from the unit's path, the instance from the mailbox's name. The same
// on every machine.
tipc_service_addr service_of(const mailbox_address& mailbox);

// A socket of TIPC's, not blocking; -1 with errno.
int tipc_socket();
// The node that the socket, or the one that it is connected to, belongs to; 0 for none.
uint32_t own_node(int fd);
uint32_t other_node(int fd);

// A socket as a place of a search, and the address of a connected one, or of its other end, in the same form.
uint64_t socket_address(int fd, bool other);
uint64_t place_of(const tipc_socket_addr& socket);
tipc_socket_addr socket_at(uint64_t place);

} // namespace oka::af_tipc
