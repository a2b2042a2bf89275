// What the files of the core share with each other and with the simulation; nothing for a transport.
#pragma once

#include "platform/oka/core/core.h"

namespace oka {

// Empties the caller's variable; null when it held nothing.
envelope* take_envelope(oka_message** message);

bool clock_plugged();
bool transport_plugged();
// Waits as the clock does.
bool wait(uint64_t deadline_ns);
int start_core(const char* own_unit);

// A mailbox of this process under "name", or under the "unit/name" of another unit.
oka_mailbox create_mailbox(const char* path);

// Queues the messages of all timers that are due, in the order of their due times; whether there were any.
bool queue_due_timers(uint64_t now);
// When the next timer is due, or never_ns.
uint64_t next_timer_ns();

// Descriptor watches (oka_watch.h).
void watch_received(uint32_t watch);
void rearm_watches();
void drop_watches_of(oka_mailbox mailbox);
// Removes what is still queued from one monitor or watch.
void drop_queued(origin from, uint32_t reference);

// What is alive, so that a test can see that nothing was left behind.
uint32_t count_messages();
uint32_t count_mailboxes();
uint32_t count_monitors();
uint32_t count_locates();
uint32_t count_timers();
uint32_t count_watches();

} // namespace oka
