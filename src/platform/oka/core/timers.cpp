// One-shot timers: a list in the order of the due times, and of the requests among equal ones.
//
// A daemon's timers are many heartbeats with one period and a few timers that wait much longer. So a new
// timer finds its place within a few steps from the end of the list. Cancelling one, which every heartbeat
// does, takes a step or two, however many timers run.
#include <cstdlib>
#include <vector>

#include "platform/oka/core/core.h"
#include "platform/oka/core/core_internal.h"
#include "platform/oka_timer.h"

namespace {

// A reference is a slot and how often that slot has been used: it names another timer only after 65535 more
// uses of the same slot.
constexpr uint32_t slot_bits = 16;
constexpr uint32_t slots_max = 1u << slot_bits;
constexpr uint32_t none = UINT32_MAX;

struct timer {
    oka::envelope* prepared = nullptr; // or null, then `call`
    void (*call)(void* context) = nullptr;
    void* context = nullptr;
    uint64_t due_ns = 0;
    uint32_t earlier = none;
    uint32_t later = none; // of a free slot: the next free one
    uint16_t use = 1;      // never 0, and so no reference is
    bool running = false;
};

struct {
    bool up = false;
    std::vector<timer> slots;
    uint32_t first = none; // due next
    uint32_t last = none;
    uint32_t free = none;
    uint32_t running = 0;
} timers;

timer& at(uint32_t slot) {
    return timers.slots[slot];
}

uint32_t take_slot() {
    uint32_t slot = timers.free;
    if (slot != none) {
        timers.free = at(slot).later;
        return slot;
    }
    if (timers.slots.size() == slots_max)
        abort(); // out of timers is out of memory
    timers.slots.emplace_back();
    return static_cast<uint32_t>(timers.slots.size() - 1);
}

// Takes the timer out of the list; what it held is the caller's.
timer release(uint32_t slot) {
    timer released = at(slot);
    (released.earlier == none ? timers.first : at(released.earlier).later) = released.later;
    (released.later == none ? timers.last : at(released.later).earlier) = released.earlier;
    uint16_t next_use = static_cast<uint16_t>(released.use + 1);
    at(slot) = {.later = timers.free, .use = next_use == 0 ? uint16_t{1} : next_use};
    timers.free = slot;
    timers.running--;
    return released;
}

oka_timer_ref add(uint64_t delay_ms, timer fresh) {
    uint32_t slot = take_slot();
    fresh.due_ns = oka::now_ns() + delay_ms * 1'000'000u;
    fresh.use = at(slot).use;
    fresh.running = true;
    fresh.earlier = timers.last;
    while (fresh.earlier != none && at(fresh.earlier).due_ns > fresh.due_ns)
        fresh.earlier = at(fresh.earlier).earlier;
    uint32_t& before = fresh.earlier == none ? timers.first : at(fresh.earlier).later;
    fresh.later = before;
    before = slot;
    (fresh.later == none ? timers.last : at(fresh.later).earlier) = slot;
    at(slot) = fresh;
    timers.running++;
    return uint32_t{fresh.use} << slot_bits | slot;
}

void cancel(oka_timer_ref reference) {
    uint32_t slot = reference & (slots_max - 1);
    if (slot >= timers.slots.size() || !at(slot).running || at(slot).use != reference >> slot_bits)
        return;
    oka::free_envelope(release(slot).prepared);
}

} // namespace

namespace oka {

uint64_t next_timer_ns() {
    return timers.first == none ? never_ns : at(timers.first).due_ns;
}

bool queue_due_timers(uint64_t now) {
    bool any = false;
    while (timers.first != none && at(timers.first).due_ns <= now) {
        timer due = release(timers.first);
        any = true;
        if (due.prepared)
            deliver(due.prepared);
        else
            due.call(due.context);
    }
    return any;
}

uint32_t call_later(uint64_t delay_ms, void (*call)(void* context), void* context) {
    return add(delay_ms, {.call = call, .context = context});
}

void cancel_call(uint32_t reference) {
    cancel(reference);
}

uint32_t count_timers() {
    return timers.running;
}

} // namespace oka

bool oka_timer_service_init() {
    timers.up = true;
    return true;
}

bool oka_timer_service_stop() {
    bool was_up = timers.up;
    timers.up = false;
    // The platform's own timers are cancelled by the parts of the platform that started them.
    for (uint32_t slot = 0; slot < timers.slots.size(); slot++) {
        if (at(slot).running && at(slot).prepared)
            oka::free_envelope(release(slot).prepared);
    }
    return was_up;
}

oka_timer_ref oka_timer_request_sig(uint32_t timeout_ms, oka_message** prepared) {
    oka::envelope* message = oka::take_envelope(prepared);
    if (!message)
        message = oka::new_envelope(sizeof(oka_message));
    message->from = oka::origin::timer;
    message->sender = OKA_MAILBOX_NONE;
    return add(timeout_ms, {.prepared = message});
}

void oka_timer_cancel(oka_timer_ref timer) {
    cancel(timer);
}
