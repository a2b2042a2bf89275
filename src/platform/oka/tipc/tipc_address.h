// How a mailbox is addressed in a TIPC cluster, and what a connection to it begins with.
#pragma once

#include <linux/tipc.h>

#include "platform/oka/core/core.h"

namespace oka {

// 64 bits of the names: the service type from the unit's path, the instance from the mailbox's name. The same
// on every machine.
tipc_service_addr service_of(const char* unit, const char* name);

// The first packet of a connection: whom it is for. `size` bytes are sent, the names with their NULs.
struct wanted_packet {
    unsigned char bytes[8 + OKA_UNIT_PATH_SIZE + OKA_MAILBOX_NAME_SIZE];
    size_t size;
};
wanted_packet make_wanted(const char* unit, const char* name);
bool is_wanted(const wanted_packet& expected, const void* bytes, size_t size);

// A socket of TIPC's, not blocking; -1 with errno.
int tipc_socket();
// The node that the socket, or the one that it is connected to, belongs to; 0 for none.
uint32_t own_node(int fd);
uint32_t other_node(int fd);

} // namespace oka
