// The messaging service on virtual time and within one process: what unit tests run on.
//
// plug() before anything else; then oka_timer_service_init, oka_init and the rest work as ever. Time stands
// still until the test moves it. oka_receive never waits: it returns NULL when nothing is queued, no timer
// is due and no watched descriptor is readable, even with a time-out.
#pragma once

#include <cstdint>

#include "platform/oka.h"

namespace oka::simulation {

constexpr uint64_t never_ms = UINT64_MAX;

void plug();

uint64_t now_ms();
void advance_ms(uint64_t milliseconds);
// When the next timer is due, on the scale of now_ms and rounded up, or never_ms.
uint64_t next_timer_ms();
// Queues the messages of all timers that are due now, as if something else had been received since they
// expired: a timer that is cancelled afterwards is delivered all the same.
void queue_due_timers();

// A mailbox that belongs to the test: not the root mailbox, nor cloned from it. "unit/name" makes one that
// is found under this hunt path.
oka_mailbox create_mailbox(const char* path);

// Makes a message look as if only its first `size` bytes had arrived.
void truncate(oka_message* message, uint32_t size);

// What is alive: all zero after oka_timer_service_stop and oka_exit, unless something leaked. Messages count
// while they are queued, prepared for a locate, monitor or timer, or held by their receiver.
struct balance {
    uint32_t messages = 0;
    uint32_t mailboxes = 0; // of this process, the test's too
    uint32_t monitors = 0;
    uint32_t locates = 0;
    uint32_t timers = 0;
    uint32_t watches = 0;
    bool operator==(const balance&) const = default;
};
balance live();

} // namespace oka::simulation
