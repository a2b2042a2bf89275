// The core: mailboxes, the queue, locates and supervisions, and the operations of oka.h over them.
#include "platform/oka/core/core.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "platform/oka/core/core_internal.h"
#include "platform/oka/core/descriptors.h"
#include "platform/oka/core/id_table.h"
#include "platform/oka/core/names.h"
#include "platform/oka/core/oka_trace.h"

namespace {

using oka::envelope;
using oka::origin;

// Receives that may take from the queue in a row before the clock and the transports are looked at.
constexpr uint32_t receives_between_waits = 64;
// Mailboxes that are gone and still remembered for the mailbox through which they were known.
constexpr uint32_t remembered_gone_mailboxes = 256;

struct monitor {
    uint32_t id;
    monitor* next_in_table;
    monitor* next_of_mailbox;
    oka_mailbox mailbox;
    oka_mailbox deliver_to;
    envelope* prepared;
};

enum class place : uint8_t { local, remote, gone };

struct mailbox {
    uint32_t id;
    mailbox* next_in_table;
    place where;
    oka_mailbox known_through; // our mailbox that last received something from it
    char* path;                // local: its name, or "unit/name" of a simulated other unit
    void (*send)(void* handle, envelope* message); // remote
    void* handle;
    monitor* monitors;
    mailbox* next_gone;
};

struct locate {
    uint32_t id;
    locate* next;
    oka_mailbox asker;
    envelope* prepared;
    oka::path wanted;
};

struct {
    const oka::clock* clock = nullptr;
    const oka::transport* transports[oka::transports_at_once] = {};
    size_t transport_count = 0;
    bool started = false;
    char own_unit[OKA_UNIT_PATH_SIZE] = "";

    oka_mailbox root = OKA_MAILBOX_NONE;
    oka::id_table<mailbox, 256> mailboxes;
    uint32_t last_mailbox = 0;
    uint32_t local_mailboxes = 0;
    mailbox* oldest_gone = nullptr;
    mailbox* newest_gone = nullptr;
    uint32_t gone_mailboxes = 0;

    envelope* queue = nullptr;
    envelope** queue_end = &queue;
    uint32_t receives_since_wait = 0;

    oka::id_table<monitor, 64> monitors;
    uint32_t last_monitor = 0;
    locate* locates = nullptr;
    uint32_t last_locate = 0;
} core;

// --- The queue

void enqueue(envelope* message) {
    message->next = nullptr;
    *core.queue_end = message;
    core.queue_end = &message->next;
}

envelope* unlink(envelope** link) {
    envelope* taken = *link;
    *link = taken->next;
    if (!*link)
        core.queue_end = link;
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

envelope* take_selected(const uint32_t* numbers, uint32_t sender_selector) {
    for (envelope** link = &core.queue; *link; link = &(*link)->next) {
        if (selected(**link, numbers, sender_selector))
            return unlink(link);
    }
    return nullptr;
}

template<typename Predicate>
void drop_queued_if(Predicate unwanted) {
    envelope** link = &core.queue;
    while (*link) {
        if (unwanted(**link))
            oka::free_envelope(unlink(link));
        else
            link = &(*link)->next;
    }
}

// --- Mailboxes

mailbox* new_mailbox(uint32_t id, place where) {
    auto* fresh = static_cast<mailbox*>(calloc(1, sizeof(mailbox)));
    if (!fresh) {
        OKA_ERROR("OKA: Memory allocation of %zu bytes failed", sizeof(mailbox));
        abort();
    }
    fresh->id = id;
    fresh->where = where;
    fresh->known_through = OKA_MAILBOX_NONE;
    core.mailboxes.insert(fresh);
    return fresh;
}

uint32_t new_mailbox_id() {
    return oka::next_free_id(core.last_mailbox, core.mailboxes);
}

mailbox* find_local(oka_mailbox id) {
    mailbox* found = core.mailboxes.find(id);
    return found && found->where == place::local ? found : nullptr;
}

mailbox* find_local_path(const char* path) {
    return core.mailboxes.find_if(
        [path](const mailbox& each) { return each.where == place::local && !strcmp(each.path, path); });
}

void forget_oldest_gone() {
    mailbox* oldest = core.oldest_gone;
    core.oldest_gone = oldest->next_gone;
    --core.gone_mailboxes;
    core.mailboxes.remove(oldest);
    free(oldest);
}

// A mailbox that is gone stays known for a while: whoever supervises it now is told at once, and on the
// mailbox through which it became known.
void remember_gone(mailbox* gone) {
    gone->where = place::gone;
    gone->next_gone = nullptr;
    (core.gone_mailboxes ? core.newest_gone->next_gone : core.oldest_gone) = gone;
    core.newest_gone = gone;
    if (++core.gone_mailboxes > remembered_gone_mailboxes)
        forget_oldest_gone();
}

void note_known_through(oka_mailbox sender, oka_mailbox receiver) {
    mailbox* known = core.mailboxes.find(sender);
    if (!known) {
        if (sender == OKA_MAILBOX_NONE)
            return;
        known = new_mailbox(sender, place::gone);
        remember_gone(known);
    }
    known->known_through = receiver;
}

// --- Supervision

void fire(oka_mailbox supervised, oka_mailbox deliver_to, uint32_t reference, envelope* message) {
    message->from = origin::monitor;
    message->reference = reference;
    message->sender = supervised;
    message->receiver = deliver_to;
    oka::deliver(message);
}

void fire_monitors(mailbox* gone) {
    while (monitor* next = gone->monitors) {
        gone->monitors = next->next_of_mailbox;
        core.monitors.remove(next);
        fire(next->mailbox, next->deliver_to, next->id, next->prepared);
        free(next);
    }
}

// --- Locates

bool is_own_unit(const char* unit) {
    return unit[0] == '\0' || !strcmp(unit, core.own_unit);
}

mailbox* find_wanted(const oka::path& wanted) {
    if (is_own_unit(wanted.unit))
        return find_local_path(wanted.name);
    char path[sizeof(oka::path) + 1];
    snprintf(path, sizeof path, "%s/%s", wanted.unit, wanted.name);
    return find_local_path(path);
}

// A hunt path goes to the transports that lead to other hosts and a local name to those that do not, or to
// all when there is no such choice.
template<typename Call>
void for_transports_to(const oka::path& wanted, Call call) {
    bool elsewhere = !is_own_unit(wanted.unit);
    bool choice = false;
    for (size_t index = 0; index < core.transport_count; ++index)
        choice |= core.transports[index]->between_hosts == elsewhere;
    for (size_t index = 0; index < core.transport_count; ++index) {
        if (!choice || core.transports[index]->between_hosts == elsewhere)
            call(*core.transports[index]);
    }
}

locate** find_locate(uint32_t id) {
    locate** link = &core.locates;
    while (*link && (*link)->id != id)
        link = &(*link)->next;
    return link;
}

locate* end_locate(locate** link) {
    locate* ended = *link;
    *link = ended->next;
    for_transports_to(ended->wanted, [&](const oka::transport& each) { each.cancel_locate(ended->id); });
    return ended;
}

void answer_locates_for(const mailbox* fresh) {
    locate** link = &core.locates;
    while (*link) {
        if (find_wanted((*link)->wanted) == fresh)
            oka::answer_locate((*link)->id, fresh->id);
        else
            link = &(*link)->next;
    }
}

void drop_locates_of(oka_mailbox asker) {
    locate** link = &core.locates;
    while (*link) {
        if ((*link)->asker != asker) {
            link = &(*link)->next;
            continue;
        }
        locate* ended = end_locate(link);
        oka::free_envelope(ended->prepared);
        free(ended);
    }
}

bool announce(const mailbox& fresh) {
    for (size_t index = 0; index < core.transport_count; ++index) {
        if (core.transports[index]->announce(fresh.id, fresh.path))
            continue;
        while (index-- > 0)
            core.transports[index]->withdraw(fresh.id);
        return false;
    }
    return true;
}

void withdraw(oka_mailbox mailbox) {
    for (size_t index = 0; index < core.transport_count; ++index)
        core.transports[index]->withdraw(mailbox);
}

bool may_create(const char* name) {
    if (!core.started)
        OKA_ERROR("OKA: Mailbox '%s' cannot be created: the messaging service is not up", name);
    else if (!oka_valid_mailbox_name(name))
        OKA_ERROR("OKA: '%.100s' is no name for a mailbox", name);
    else
        return true;
    return false;
}

} // namespace

namespace oka {

void plug_clock(const clock* plugged) {
    core.clock = plugged;
}

void plug_transport(const transport* plugged) {
    if (core.transport_count < transports_at_once)
        core.transports[core.transport_count++] = plugged;
}

bool transport_plugged() {
    return core.transport_count > 0;
}

bool clock_plugged() {
    return core.clock;
}

uint64_t now_ns() {
    return core.clock->now_ns();
}

int start_core(const char* own_unit) {
    if (core.started) {
        OKA_ERROR("OKA: The messaging service is up already");
        return EALREADY;
    }
    snprintf(core.own_unit, sizeof core.own_unit, "%s", own_unit);
    for (size_t index = 0; index < core.transport_count; ++index) {
        if (int error = core.transports[index]->start(core.own_unit)) {
            while (index-- > 0)
                core.transports[index]->stop();
            return error;
        }
    }
    core.started = true;
    return 0;
}

const char* own_unit() {
    return core.own_unit;
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
    mailbox* gone = core.mailboxes.find(id);
    fire_monitors(gone);
    remember_gone(gone);
}

void deliver(envelope* message) {
    if (message->from == origin::timer)
        message->receiver = core.root;
    else if (message->from == origin::monitor && !is_local(message->receiver))
        message->receiver = core.root;
    if (is_local(message->receiver))
        enqueue(message);
    else
        free_envelope(message);
}

void answer_locate(uint32_t id, oka_mailbox found) {
    locate** link = find_locate(id);
    if (!*link)
        return;
    locate* answered = end_locate(link);
    answered->prepared->from = origin::locate;
    answered->prepared->sender = found;
    answered->prepared->receiver = answered->asker;
    deliver(answered->prepared);
    free(answered);
}

oka_mailbox create_mailbox(const char* path) {
    if (find_local_path(path)) {
        OKA_ERROR("OKA: The name '%s' is taken by a mailbox of this process", path);
        return OKA_MAILBOX_NONE;
    }
    mailbox* fresh = new_mailbox(new_mailbox_id(), place::local);
    fresh->path = strdup(path);
    if (!fresh->path)
        abort();
    if (!announce(*fresh)) {
        core.mailboxes.remove(fresh);
        free(fresh->path);
        free(fresh);
        return OKA_MAILBOX_NONE;
    }
    ++core.local_mailboxes;
    answer_locates_for(fresh);
    return fresh->id;
}

void drop_queued(origin from, uint32_t reference) {
    drop_queued_if(
        [=](const envelope& queued) { return queued.from == from && queued.reference == reference; });
}

uint32_t count_mailboxes() {
    return core.local_mailboxes;
}

uint32_t count_monitors() {
    return static_cast<uint32_t>(core.monitors.size());
}

uint32_t count_locates() {
    uint32_t count = 0;
    for (const locate* each = core.locates; each; each = each->next)
        ++count;
    return count;
}

} // namespace oka

void oka_exit() {
    auto local = [](const mailbox& each) { return each.where == place::local; };
    while (mailbox* left = core.mailboxes.find_if(local))
        oka_delete_mailbox(left->id);
    if (core.started) {
        for (size_t index = core.transport_count; index-- > 0;)
            core.transports[index]->stop();
    }
    drop_queued_if([](const envelope&) { return true; });
    while (core.gone_mailboxes > 0)
        forget_oldest_gone();
    oka::release_descriptors();
    core.started = false;
}

oka_mailbox oka_create_mailbox(const char* name, uint32_t) {
    if (!may_create(name))
        return OKA_MAILBOX_NONE;
    if (core.root != OKA_MAILBOX_NONE) {
        OKA_ERROR("OKA: Mailbox '%s' cannot be created: the process has a root mailbox", name);
        return OKA_MAILBOX_NONE;
    }
    core.root = oka::create_mailbox(name);
    return core.root;
}

oka_mailbox oka_clone_mailbox(oka_mailbox existing, const char* name) {
    if (!may_create(name))
        return OKA_MAILBOX_NONE;
    if (!oka::is_local(existing)) {
        OKA_ERROR("OKA: Mailbox '%s' cannot be cloned from %u: there is none", name, existing);
        return OKA_MAILBOX_NONE;
    }
    return oka::create_mailbox(name);
}

void oka_delete_mailbox(oka_mailbox id) {
    mailbox* deleted = find_local(id);
    if (!deleted)
        return;
    deleted->where = place::gone;
    --core.local_mailboxes;
    withdraw(id);
    free(deleted->path);
    deleted->path = nullptr;
    if (core.root == id)
        core.root = OKA_MAILBOX_NONE;
    drop_locates_of(id);
    oka::drop_watches_of(id);
    // A supervision's message outlives the mailbox that it was to arrive on.
    if (core.root != OKA_MAILBOX_NONE) {
        for (envelope* queued = core.queue; queued; queued = queued->next) {
            if (queued->receiver == id && queued->from == origin::monitor)
                queued->receiver = core.root;
        }
    }
    drop_queued_if([id](const envelope& queued) { return queued.receiver == id; });
    fire_monitors(deleted);
    remember_gone(deleted);
}

void oka_send(oka_message** message, oka_mailbox receiver, oka_mailbox sender) {
    envelope* sent = oka::take_envelope(message);
    if (!sent)
        return;
    const mailbox* to = core.mailboxes.find(receiver);
    if (sent->size > OKA_MESSAGE_SIZE_MAX) {
        OKA_ERROR("OKA: Message 0x%x of %u bytes is too large to be sent", sent->message.number, sent->size);
        oka::free_envelope(sent);
        return;
    }
    sent->from = origin::mailbox;
    sent->receiver = receiver;
    sent->sender = sender;
    if (!to || to->where == place::gone)
        oka::free_envelope(sent);
    else if (to->where == place::local)
        enqueue(sent);
    else {
        if (!oka::is_local(sender))
            sent->sender = OKA_MAILBOX_NONE;
        to->send(to->handle, sent);
    }
}

oka_message* oka_receive(const uint32_t* numbers, int32_t timeout_ms, uint32_t sender_selector) {
    if (!core.clock)
        return nullptr;
    oka::rearm_watches();
    if (++core.receives_since_wait > receives_between_waits) {
        core.receives_since_wait = 0;
        oka::queue_due_timers(core.clock->now_ns());
        core.clock->wait(0);
    }
    uint64_t give_up_ns = 0;
    bool waited = false;
    bool more = true;
    for (;;) {
        if (envelope* taken = take_selected(numbers, sender_selector)) {
            if (taken->from == origin::mailbox || taken->from == origin::locate)
                note_known_through(taken->sender, taken->receiver);
            else if (taken->from == origin::watch)
                oka::watch_received(taken->reference);
            return &taken->message;
        }
        if (!more)
            return nullptr;
        uint64_t now = core.clock->now_ns();
        if (oka::queue_due_timers(now))
            continue;
        if (!waited) {
            waited = true;
            give_up_ns =
                timeout_ms < 0 ? oka::never_ns : now + static_cast<uint64_t>(timeout_ms) * 1'000'000u;
        } else if (now >= give_up_ns) {
            return nullptr;
        }
        core.receives_since_wait = 0;
        uint64_t timer_ns = oka::next_timer_ns();
        more = core.clock->wait(timer_ns < give_up_ns ? timer_ns : give_up_ns);
    }
}

void oka_locate_async(const char* name, oka_message** prepared, oka_mailbox mailbox_id) {
    envelope* message = oka::take_envelope(prepared);
    if (!message)
        return;
    auto* asked = static_cast<locate*>(calloc(1, sizeof(locate)));
    if (!asked || !oka::is_local(mailbox_id) || !oka::split_path(name, asked->wanted)) {
        OKA_ERROR("OKA: '%.350s' cannot be located for mailbox %u", name, mailbox_id);
        oka::free_envelope(message);
        free(asked);
        return;
    }
    asked->id = ++core.last_locate;
    asked->asker = mailbox_id;
    asked->prepared = message;
    locate** end = &core.locates;
    while (*end)
        end = &(*end)->next;
    *end = asked;
    if (const mailbox* found = find_wanted(asked->wanted)) {
        oka::answer_locate(asked->id, found->id);
        return;
    }
    // Copies, since a transport may answer at once.
    uint32_t id = asked->id;
    const oka::path wanted = asked->wanted;
    const char* unit = is_own_unit(wanted.unit) ? "" : wanted.unit;
    for_transports_to(wanted, [&](const oka::transport& each) { each.locate(id, unit, wanted.name); });
}

oka_monitor_ref oka_monitor(oka_mailbox supervised, oka_message** prepared) {
    envelope* message = oka::take_envelope(prepared);
    uint32_t id = oka::next_free_id(core.last_monitor, core.monitors);
    if (!message)
        return id;
    mailbox* known = core.mailboxes.find(supervised);
    oka_mailbox deliver_to = known ? known->known_through : OKA_MAILBOX_NONE;
    if (!known || known->where == place::gone) {
        fire(supervised, deliver_to, id, message);
        return id;
    }
    auto* fresh = static_cast<monitor*>(calloc(1, sizeof(monitor)));
    if (!fresh)
        abort();
    *fresh = {.id = id,
              .next_in_table = nullptr,
              .next_of_mailbox = nullptr,
              .mailbox = supervised,
              .deliver_to = deliver_to,
              .prepared = message};
    core.monitors.insert(fresh);
    monitor** end = &known->monitors;
    while (*end)
        end = &(*end)->next_of_mailbox;
    *end = fresh;
    return id;
}

void oka_unmonitor(oka_monitor_ref reference) {
    monitor* ended = core.monitors.find(reference);
    if (!ended) {
        oka::drop_queued(origin::monitor, reference);
        return;
    }
    monitor** link = &core.mailboxes.find(ended->mailbox)->monitors;
    while (*link != ended)
        link = &(*link)->next_of_mailbox;
    *link = ended->next_of_mailbox;
    core.monitors.remove(ended);
    oka::free_envelope(ended->prepared);
    free(ended);
}
