// Reads what a netlink datagram says about network interfaces. It knows no sockets and no ports, so that
// tests can give it any bytes.
#pragma once

#include <cstddef>
#include <cstdint>

namespace oxpcsi {

enum class link_event_type {
    present,     // an interface exists and is as described
    gone,        // an interface was deleted, or left this network namespace
    all_told,    // the end of the answer to a request for all interfaces
    interrupted, // interfaces changed during the answer, and one may be missing
    refused,     // the request for all interfaces failed
    overrun,     // messages were lost
};

struct link_event {
    link_event_type type;
    uint32_t index;         // present, gone
    char name[16];          // present, gone
    uint32_t flags;         // present: IFF_UP and its like
    uint8_t mac_address[6]; // present; all zero when the interface has no Ethernet address
    int error;              // refused: an errno value
};

// Calls `handle` for each message of a datagram that is about an interface, in their order, and skips the
// others. False when the last bytes are not a whole message, or a message is too short for its type; the
// messages before have been handled then. `datagram` is aligned to 4 bytes.
[[nodiscard]] bool parse_link_messages(const void* datagram, size_t size, void (*handle)(const link_event&));

} // namespace oxpcsi
