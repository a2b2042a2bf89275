#include "platform/oka/tipc/tipc_address.h"

#include <sys/socket.h>

namespace oka::af_tipc {

namespace {

// Service types below are the kernel's own.
constexpr uint32_t first_free_type = TIPC_RESERVED_TYPES;

// FNV-1a: spreads names well, and is the same on every machine. It need not be hard to invert.
uint32_t hash(const char* text) {
    uint32_t value = 2166136261u;
    for (; *text; ++text)
        value = (value ^ static_cast<unsigned char>(*text)) * 16777619u;
    return value;
}

// Of the socket, or of the one that it is connected to; zero when there is none.
tipc_socket_addr address_of(int fd, bool other) {
    sockaddr_tipc address = {};
    socklen_t size = sizeof address;
    auto* into = reinterpret_cast<sockaddr*>(&address);
    const int result = other ? getpeername(fd, into, &size) : getsockname(fd, into, &size);
    return result == 0 ? address.addr.id : tipc_socket_addr{};
}

} // namespace

tipc_service_addr service_of(const mailbox_address& mailbox) {
    uint32_t type = hash(mailbox.unit);
    return {.type = type < first_free_type ? type + first_free_type : type, .instance = hash(mailbox.name)};
}

int tipc_socket() {
    return socket(AF_TIPC, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
}

uint32_t own_node(int fd) {
    return address_of(fd, false).node;
}

uint32_t other_node(int fd) {
    return address_of(fd, true).node;
}

uint64_t socket_address(int fd, bool other) {
    return place_of(address_of(fd, other));
}

uint64_t place_of(const tipc_socket_addr& socket) {
    return uint64_t{socket.node} << 32 | socket.ref;
}

tipc_socket_addr socket_at(uint64_t place) {
    return {.ref = static_cast<uint32_t>(place), .node = static_cast<uint32_t>(place >> 32)};
}

} // namespace oka::af_tipc
