#include "platform/oka/tipc/tipc_address.h"

#include <cstring>
#include <initializer_list>
#include <sys/socket.h>

namespace oka {

namespace {

// Service types below are the kernel's own.
constexpr uint32_t first_free_type = TIPC_RESERVED_TYPES;
constexpr char wanted_magic[8] = {'o', 'k', 'a', '-', 't', 'i', 'p', 'c'};

// FNV-1a: spreads names well, and is the same everywhere. Nothing rests on it being hard to invert.
uint32_t hash(const char* text) {
    uint32_t value = 2166136261u;
    for (; *text; ++text)
        value = (value ^ static_cast<unsigned char>(*text)) * 16777619u;
    return value;
}

} // namespace

tipc_service_addr service_of(const char* unit, const char* name) {
    uint32_t type = hash(unit);
    return {.type = type < first_free_type ? type + first_free_type : type, .instance = hash(name)};
}

wanted_packet make_wanted(const char* unit, const char* name) {
    wanted_packet made = {};
    memcpy(made.bytes, wanted_magic, sizeof wanted_magic);
    made.size = sizeof wanted_magic;
    for (const char* text : {unit, name}) {
        size_t length = strlen(text) + 1;
        memcpy(made.bytes + made.size, text, length);
        made.size += length;
    }
    return made;
}

bool is_wanted(const wanted_packet& expected, const void* bytes, size_t size) {
    return size == expected.size && !memcmp(bytes, expected.bytes, size);
}

int tipc_socket() {
    return socket(AF_TIPC, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
}

uint32_t own_node(int fd) {
    sockaddr_tipc address = {};
    socklen_t size = sizeof address;
    return getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size) == 0 ? address.addr.id.node : 0;
}

uint32_t other_node(int fd) {
    sockaddr_tipc address = {};
    socklen_t size = sizeof address;
    return getpeername(fd, reinterpret_cast<sockaddr*>(&address), &size) == 0 ? address.addr.id.node : 0;
}

} // namespace oka
