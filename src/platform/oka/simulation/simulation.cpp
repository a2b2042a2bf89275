#include "platform/oka/simulation/simulation.h"

#include <cstring>

#include "platform/oka/core/core_internal.h"
#include "platform/oka/core/descriptors.h"

namespace {

constexpr uint64_t ns_per_ms = 1'000'000;

// Not zero, since no real clock starts there.
uint64_t virtual_now_ns = 1'000 * ns_per_ms;

uint64_t now() {
    return virtual_now_ns;
}

bool wait(uint64_t) {
    return oka::watched_descriptors() > 0 && oka::wait_for_descriptors(0);
}

constexpr oka::clock virtual_clock = {.now_ns = now, .wait = wait};

} // namespace

namespace oka::simulation {

void plug() {
    plug_clock(&virtual_clock);
}

uint64_t now_ms() {
    return virtual_now_ns / ns_per_ms;
}

void advance_ms(uint64_t milliseconds) {
    virtual_now_ns += milliseconds * ns_per_ms;
}

uint64_t next_timer_ms() {
    uint64_t due_ns = next_timer_ns();
    return due_ns == never_ns ? never_ms : (due_ns + ns_per_ms - 1) / ns_per_ms;
}

void queue_due_timers() {
    oka::queue_due_timers(virtual_now_ns);
}

oka_mailbox create_mailbox(const char* path) {
    return oka::create_mailbox(path);
}

void truncate(oka_message* message, uint32_t size) {
    oka_message* held = message;
    envelope* whole = take_envelope(&held);
    if (size >= whole->size)
        return;
    explicit_bzero(bytes_of(whole) + size, whole->size - size);
    whole->size = size;
    if (size < sizeof(oka_message))
        whole->message.number = 0;
}

balance live() {
    return {.messages = count_messages(),
            .mailboxes = count_mailboxes(),
            .monitors = count_monitors(),
            .locates = count_locates(),
            .timers = count_timers(),
            .watches = count_watches()};
}

} // namespace oka::simulation
