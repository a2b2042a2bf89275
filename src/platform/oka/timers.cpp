// One-shot timers: a heap ordered by due time, and by the order of the requests among equal ones.
#include <algorithm>
#include <vector>

#include "platform/oka/core.h"
#include "platform/oka/core_internal.h"
#include "platform/oka_timer.h"

namespace {

struct timer {
    oka::envelope* prepared = nullptr; // or null, then `call`
    void (*call)(void* context) = nullptr;
    void* context = nullptr;
    uint64_t due_ns = 0;
    uint64_t sequence = 0;
    oka_timer_ref reference = 0;

    // The heap keeps its greatest element first: the one that is due next.
    bool operator<(const timer& other) const {
        return due_ns != other.due_ns ? due_ns > other.due_ns : sequence > other.sequence;
    }
};

struct {
    bool up = false;
    std::vector<timer> heap;
    uint64_t sequence = 0;
    oka_timer_ref last_reference = 0;
} timers;

auto find(oka_timer_ref reference) {
    return std::find_if(timers.heap.begin(), timers.heap.end(),
                        [&](const timer& candidate) { return candidate.reference == reference; });
}

oka_timer_ref add(uint64_t delay_ms, timer fresh) {
    do
        ++timers.last_reference;
    while (timers.last_reference == 0 || find(timers.last_reference) != timers.heap.end());
    fresh.due_ns = oka::now_ns() + delay_ms * 1'000'000u;
    fresh.sequence = ++timers.sequence;
    fresh.reference = timers.last_reference;
    timers.heap.push_back(fresh);
    std::push_heap(timers.heap.begin(), timers.heap.end());
    return fresh.reference;
}

void cancel(oka_timer_ref reference) {
    auto found = find(reference);
    if (found == timers.heap.end())
        return;
    oka::free_envelope(found->prepared);
    *found = timers.heap.back();
    timers.heap.pop_back();
    std::make_heap(timers.heap.begin(), timers.heap.end());
}

} // namespace

namespace oka {

uint64_t next_timer_ns() {
    return timers.heap.empty() ? never_ns : timers.heap.front().due_ns;
}

bool queue_due_timers(uint64_t now) {
    bool any = false;
    while (!timers.heap.empty() && timers.heap.front().due_ns <= now) {
        std::pop_heap(timers.heap.begin(), timers.heap.end());
        timer due = timers.heap.back();
        timers.heap.pop_back();
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
    return static_cast<uint32_t>(timers.heap.size());
}

} // namespace oka

bool oka_timer_service_init() {
    oka::choose_clock();
    timers.up = true;
    return true;
}

bool oka_timer_service_stop() {
    bool was_up = timers.up;
    timers.up = false;
    while (true) {
        auto with_message = std::find_if(timers.heap.begin(), timers.heap.end(),
                                         [](const timer& candidate) { return candidate.prepared; });
        if (with_message == timers.heap.end())
            return was_up;
        cancel(with_message->reference);
    }
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
