// The mailboxes of this process as listening sockets: accepting connections, and keeping the sockets where
// they can be found.
#pragma once

#include "platform/oka.h"
#include "platform/oka/links/family.h"

namespace oka {

bool announce_listener(const family& over, oka_mailbox mailbox, const char* name);
void withdraw_listener(const family& over, oka_mailbox mailbox);
void stop_listening();

// What a family calls.

// The address of a mailbox that listens over this family; false when it does not, or no longer.
bool find_listener(const family& over, oka_mailbox mailbox, mailbox_address& found);
bool is_listening(const char* name);
// After a while, publishes anew what is no longer in place.
void restore_listeners();

// What the links call: a connection was closed, so there may be room for another.
void listen_again();

} // namespace oka
