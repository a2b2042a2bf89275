// What the kernel knows about the interfaces of the node's ports, kept up to date over rtnetlink. Interfaces
// are followed by name: one that is deleted and made again, or renamed to a port's interface, is the port's.
// Only interfaces of the process's own network namespace are seen.
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
    uint32_t line_rate;     // in Mbit/s; 0 when not known, as without carrier
    uint32_t index;         // 0 while the interface does not exist
    uint8_t mac_address[6]; // the last known one while it does not; all zero when there never was one

    bool operator==(const port_facts&) const = default;
};

// Called from within port_facts_dispatch_message.
struct port_facts_callbacks {
    // Something about the port's interface is not as it was last told, or as the zero-filled facts that
    // every port begins with.
    void (*port_changed)(size_t port, const port_facts& facts);
    // Every interface has been looked at once; called once.
    void (*all_known)();
};

// Begins to follow `count` interfaces; port p is the one of names[p], whose text the caller keeps. What the
// kernel says arrives as messages at `mailbox`. False, after an error trace, when netlink is not to be had.
[[nodiscard]] bool port_facts_start(const char* const* names, size_t count, oka_mailbox mailbox,
                                    const port_facts_callbacks& callbacks);
void port_facts_stop();

// True when the message was one of this module's.
bool port_facts_dispatch_message(const oka_message* message);

// The name under which `ip netns` knows the network namespace of this process, with its NUL; "" for one
// without a name, such as the initial one. The text lives until the next call.
const char* own_network_namespace();

} // namespace oxpcsi
