// The mailboxes of this process as listening sockets: accepting connections, and keeping the sockets where
// they can be found when someone cleans up the messaging directory.
#pragma once

#include "platform/oka.h"

namespace oka {

bool announce_listener(oka_mailbox mailbox, const char* name);
void withdraw_listener(oka_mailbox mailbox);

// A connection was closed: there may be room for another.
void listen_again();
void stop_listening();

} // namespace oka
