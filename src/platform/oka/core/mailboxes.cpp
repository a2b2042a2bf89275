#include "platform/oka/core/mailboxes.h"

#include <cassert>
#include <cstdlib>
#include <cstring>

#include "platform/oka/core/core_internal.h"
#include "platform/oka/core/id_table.h"
#include "platform/oka/core/oka_trace.h"

namespace oka {

struct monitor {
    uint32_t id;
    monitor* next_in_table;
    monitor* next_of_mailbox;
    oka_mailbox mailbox;
    oka_mailbox deliver_to;
    envelope* prepared;
};

namespace {

// How many mailboxes that are gone stay known.
constexpr uint32_t remembered_gone_mailboxes = 256;

constinit struct {
    oka_mailbox root = OKA_MAILBOX_NONE;
    id_table<mailbox, 256> mailboxes;
    uint32_t last_mailbox = 0;
    uint32_t local_mailboxes = 0;
    mailbox* oldest_gone = nullptr;
    mailbox* newest_gone = nullptr;
    uint32_t gone_mailboxes = 0;

    envelope* queue = nullptr;
    envelope** queue_end = &queue;

    id_table<monitor, 64> monitors;
    uint32_t last_monitor = 0;
} state;

// --- The queue

envelope* unlink(envelope** link) {
    envelope* taken = *link;
    *link = taken->next;
    if (!*link)
        state.queue_end = link;
    return taken;
}

bool selected(const envelope& message, const uint32_t* numbers, uint32_t sender_selector) {
    if (sender_selector != OKA_ANY_SENDER && message.sender != sender_selector)
        return false;
    if (!numbers)
        return true;
    for (uint32_t index = 1; index <= numbers[0]; ++index) {
        if (message.message.number == numbers[index])
            return true;
    }
    return false;
}

template<typename Predicate>
void drop_queued_if(Predicate unwanted) {
    envelope** link = &state.queue;
    while (*link) {
        if (unwanted(**link))
            free_envelope(unlink(link));
        else
            link = &(*link)->next;
    }
}

// --- Mailboxes

mailbox* new_mailbox(uint32_t id, place where) {
    auto* fresh = new mailbox{.id = id, .where = where};
    state.mailboxes.insert(fresh);
    return fresh;
}

uint32_t new_mailbox_id() {
    return next_free_id(state.last_mailbox, state.mailboxes);
}

void forget_oldest_gone() {
    mailbox* oldest = state.oldest_gone;
    state.oldest_gone = oldest->next_gone;
    --state.gone_mailboxes;
    state.mailboxes.remove(oldest);
    delete oldest;
}

// A mailbox that is gone stays known for a while, so that a supervision of it is answered at once, on the
// mailbox through which it became known.
void remember_gone(mailbox* gone) {
    assert(!gone->monitors && !gone->path);
    gone->where = place::gone;
    gone->next_gone = nullptr;
    (state.gone_mailboxes ? state.newest_gone->next_gone : state.oldest_gone) = gone;
    state.newest_gone = gone;
    if (++state.gone_mailboxes > remembered_gone_mailboxes)
        forget_oldest_gone();
}

// --- Supervision

void fire(oka_mailbox supervised, oka_mailbox deliver_to, uint32_t reference, envelope* message) {
    message->from = origin::monitor;
    message->reference = reference;
    message->sender = supervised;
    message->receiver = deliver_to;
    deliver(message);
}

void fire_monitors(mailbox* gone) {
    while (monitor* next = gone->monitors) {
        gone->monitors = next->next_of_mailbox;
        state.monitors.remove(next);
        fire(next->mailbox, next->deliver_to, next->id, next->prepared);
        delete next;
    }
}

// The message of a supervision is delivered even when the mailbox that it was meant for is gone.
void redirect_to_root(oka_mailbox ended) {
    if (state.root == OKA_MAILBOX_NONE)
        return;
    for (envelope* queued = state.queue; queued; queued = queued->next) {
        if (queued->receiver == ended && queued->from == origin::monitor)
            queued->receiver = state.root;
    }
}

} // namespace

mailbox* find_mailbox(oka_mailbox id) {
    return state.mailboxes.find(id);
}

mailbox* find_local(oka_mailbox id) {
    mailbox* found = find_mailbox(id);
    return found && found->where == place::local ? found : nullptr;
}

mailbox* find_local_path(const char* path) {
    return state.mailboxes.find_if(
        [path](const mailbox& each) { return each.where == place::local && !strcmp(each.path, path); });
}

mailbox* any_local() {
    return state.mailboxes.find_if([](const mailbox& each) { return each.where == place::local; });
}

mailbox* add_local(const char* path) {
    mailbox* fresh = new_mailbox(new_mailbox_id(), place::local);
    fresh->path = strdup(path);
    if (!fresh->path)
        abort();
    ++state.local_mailboxes;
    return fresh;
}

void forget_local(mailbox* fresh) {
    --state.local_mailboxes;
    state.mailboxes.remove(fresh);
    free(fresh->path);
    delete fresh;
}

void close_local(mailbox* ended) {
    ended->where = place::gone;
    --state.local_mailboxes;
    free(ended->path);
    ended->path = nullptr;
    if (state.root == ended->id)
        state.root = OKA_MAILBOX_NONE;
}

void finish_local(mailbox* ended) {
    redirect_to_root(ended->id);
    drop_queued_if([=](const envelope& queued) { return queued.receiver == ended->id; });
    fire_monitors(ended);
    remember_gone(ended);
}

oka_mailbox root_mailbox() {
    return state.root;
}

void set_root_mailbox(oka_mailbox root) {
    state.root = root;
}

void enqueue(envelope* message) {
    message->next = nullptr;
    *state.queue_end = message;
    state.queue_end = &message->next;
}

envelope* take_queued(const uint32_t* numbers, uint32_t sender_selector) {
    for (envelope** link = &state.queue; *link; link = &(*link)->next) {
        if (selected(**link, numbers, sender_selector))
            return unlink(link);
    }
    return nullptr;
}

void note_known_through(oka_mailbox sender, oka_mailbox receiver) {
    mailbox* known = find_mailbox(sender);
    if (!known) {
        if (sender == OKA_MAILBOX_NONE)
            return;
        known = new_mailbox(sender, place::gone);
        remember_gone(known);
    }
    known->known_through = receiver;
}

void forget_everything() {
    drop_queued_if([](const envelope&) { return true; });
    while (state.gone_mailboxes > 0)
        forget_oldest_gone();
}

bool is_local(oka_mailbox mailbox) {
    return find_local(mailbox);
}

oka_mailbox add_remote(void (*send)(void* handle, envelope* message), void* handle) {
    mailbox* fresh = new_mailbox(new_mailbox_id(), place::remote);
    fresh->send = send;
    fresh->handle = handle;
    return fresh->id;
}

void remove_remote(oka_mailbox id) {
    mailbox* gone = find_mailbox(id);
    assert(gone && gone->where == place::remote);
    fire_monitors(gone);
    remember_gone(gone);
}

void deliver(envelope* message) {
    if (message->from == origin::timer)
        message->receiver = state.root;
    else if (message->from == origin::monitor && !is_local(message->receiver))
        message->receiver = state.root;
    if (is_local(message->receiver))
        enqueue(message);
    else
        free_envelope(message);
}

void drop_queued(origin from, uint32_t reference) {
    drop_queued_if(
        [=](const envelope& queued) { return queued.from == from && queued.reference == reference; });
}

uint32_t count_mailboxes() {
    return state.local_mailboxes;
}

uint32_t count_monitors() {
    return static_cast<uint32_t>(state.monitors.size());
}

} // namespace oka

using namespace oka;

oka_monitor_ref oka_monitor(oka_mailbox supervised, oka_message** prepared) {
    envelope* message = take_envelope(prepared);
    uint32_t id = next_free_id(state.last_monitor, state.monitors);
    if (!message)
        return id;
    mailbox* known = find_mailbox(supervised);
    oka_mailbox deliver_to = known ? known->known_through : OKA_MAILBOX_NONE;
    if (!known || known->where == place::gone) {
        fire(supervised, deliver_to, id, message);
        return id;
    }
    auto* fresh = new monitor{.id = id,
                              .next_in_table = nullptr,
                              .next_of_mailbox = nullptr,
                              .mailbox = supervised,
                              .deliver_to = deliver_to,
                              .prepared = message};
    state.monitors.insert(fresh);
    monitor** end = &known->monitors;
    while (*end)
        end = &(*end)->next_of_mailbox;
    *end = fresh;
    return id;
}

void oka_unmonitor(oka_monitor_ref reference) {
    monitor* ended = state.monitors.find(reference);
    if (!ended) {
        drop_queued(origin::monitor, reference);
        return;
    }
    monitor** link = &find_mailbox(ended->mailbox)->monitors;
    while (*link != ended)
        link = &(*link)->next_of_mailbox;
    *link = ended->next_of_mailbox;
    state.monitors.remove(ended);
    free_envelope(ended->prepared);
    delete ended;
}
