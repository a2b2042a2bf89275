// The links of this node: keeps a record for each, agrees on those that are to be secured with the other end,
// brings the daemon to hold what the file, the operator and the agreement want, and keeps what the daemon
// says of every port.
#pragma once

#include <optional>
#include <vector>

#include "services/idl-topologyd/link_record.h"

namespace topologyd {

struct topology_callbacks {
    // Something that is shown of a link or of the connection changed.
    void (*handle_changed)();
};

// Begins to look for the daemon, without any link.
[[nodiscard]] bool topology_start(oka_mailbox mailbox, const topology_callbacks* callbacks);
void topology_stop();

// The links of the file from now on. A link that the file changed loses the status that was set over it.
void topology_follow(const std::vector<link_attributes>& links);
// Sets the link's status over that of the file, or takes that back. False when the file has no such link.
bool topology_set_status(const tavu::port_name& port, std::optional<uint32_t> status);

// Asks the daemon for the present status of every port: it does not tell of every change by itself, but
// begins every subscription with an indication. Under way until each port's has arrived.
void topology_refresh();
bool topology_is_refreshing();

// In the order of the file, then those that are being removed.
const std::vector<link_record>& topology_links();
// The link of the file on this port, or null.
const link_record* topology_find(const tavu::port_name& port);

// True when the message was this module's.
bool topology_dispatch_message(const oka_message* message);

} // namespace topologyd
