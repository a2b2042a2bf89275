// The state of the interfaces of the node's ports, kept up to date over rtnetlink. Interfaces are followed by
// name: one that is deleted and made again, or renamed to the name of a port's interface, is the port's. Only
// interfaces of the process's own network namespace are seen.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/oka.h"

namespace oxpcsi {

// The most ports that a node has.
constexpr size_t ports_max = 16;

struct port_facts {
    bool present;           // the interface exists
    bool unlocked;          // administratively up
    bool enabled;           // operationally up, with carrier
    uint32_t line_rate;     // in Mbit/s; 0 when not known, for example without carrier
    uint32_t index;         // 0 while the interface does not exist
    uint8_t mac_address[6]; // while it does not exist the last one; zero if it never existed

    bool operator==(const port_facts&) const = default;
};

// Called from within port_facts_dispatch_message.
struct port_facts_callbacks {
    // The port's facts are no longer those of the last call; before the first call they are all zero.
    void (*port_changed)(size_t port, const port_facts& facts);
    // The facts of every port are known; called once.
    void (*all_known)();
};

// Begins to follow `count` interfaces; names[p] is that of port p, and the caller keeps its text. Messages
// of the kernel arrive at `mailbox`. False, after an error trace, when netlink cannot be used.
[[nodiscard]] bool port_facts_start(const char* const* names, size_t count, oka_mailbox mailbox,
                                    const port_facts_callbacks& callbacks);
void port_facts_stop();

// True when the message was one of this module's.
bool port_facts_dispatch_message(const oka_message* message);

// The name that `ip netns` has for the network namespace of this process; "" if it has none, as for the
// initial one. The text lives until the next call.
const char* own_network_namespace();

} // namespace oxpcsi
