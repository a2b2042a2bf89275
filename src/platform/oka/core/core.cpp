// The operations of oka.h: what is sent and received, locates, and the transports under them.
#include "platform/oka/core/core.h"

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "platform/oka/core/core_internal.h"
#include "platform/oka/core/descriptors.h"
#include "platform/oka/core/mailboxes.h"
#include "platform/oka/core/names.h"
#include "platform/oka/core/oka_trace.h"
#include "platform/oka/core/signals.h"

namespace oka {

namespace {

// Receives that may take from the queue in a row before the clock and the transports are looked at.
constexpr uint32_t receives_between_waits = 64;

struct locate {
    uint32_t id;
    locate* next;
    oka_mailbox asker;
    envelope* prepared;
    path wanted;
};

constinit struct {
    const transport* transports[transports_at_once] = {};
    size_t transport_count = 0;
    bool started = false;
    char own_unit[OKA_UNIT_PATH_SIZE] = "";
    uint32_t receives_since_wait = 0;
    locate* locates = nullptr;
    uint32_t last_locate = 0;
} core;

// --- Locates

bool is_own_unit(const char* unit) {
    return unit[0] == '\0' || !strcmp(unit, core.own_unit);
}

mailbox* find_wanted(const path& wanted) {
    if (is_own_unit(wanted.unit))
        return find_local_path(wanted.name);
    char whole[sizeof(path) + 1];
    snprintf(whole, sizeof whole, "%s/%s", wanted.unit, wanted.name);
    return find_local_path(whole);
}

// A hunt path goes to the transports that lead to other hosts and a local name to those that do not, or to
// all when there is no such choice.
template<typename Call>
void for_transports_to(const path& wanted, Call call) {
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
    for_transports_to(ended->wanted, [&](const transport& each) { each.cancel_locate(ended->id); });
    return ended;
}

void answer_locates_for(const mailbox* fresh) {
    locate** link = &core.locates;
    while (*link) {
        if (find_wanted((*link)->wanted) == fresh)
            answer_locate((*link)->id, fresh->id);
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
        free_envelope(ended->prepared);
        delete ended;
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

void plug_transport(const transport* plugged) {
    assert(core.transport_count < transports_at_once);
    core.transports[core.transport_count++] = plugged;
}

bool transport_plugged() {
    return core.transport_count > 0;
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

bool names_are_kept_within_host() {
    return std::any_of(core.transports, core.transports + core.transport_count,
                       [](const transport* each) { return !each->between_hosts; });
}

const char* own_unit() {
    return core.own_unit;
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
    delete answered;
}

oka_mailbox create_mailbox(const char* path) {
    if (find_local_path(path)) {
        OKA_ERROR("OKA: The name '%s' is taken by a mailbox of this process", path);
        return OKA_MAILBOX_NONE;
    }
    mailbox* fresh = add_local(path);
    if (!announce(*fresh)) {
        forget_local(fresh);
        return OKA_MAILBOX_NONE;
    }
    answer_locates_for(fresh);
    return fresh->id;
}

uint32_t count_locates() {
    uint32_t count = 0;
    for (const locate* each = core.locates; each; each = each->next)
        ++count;
    return count;
}

} // namespace oka

using namespace oka;

void oka_exit() {
    while (mailbox* left = any_local())
        oka_delete_mailbox(left->id);
    if (core.started) {
        for (size_t index = core.transport_count; index-- > 0;)
            core.transports[index]->stop();
    }
    forget_everything();
    unwatch_signals();
    release_descriptors();
    core.started = false;
}

oka_mailbox oka_create_mailbox(const char* name, uint32_t) {
    if (!may_create(name))
        return OKA_MAILBOX_NONE;
    if (root_mailbox() != OKA_MAILBOX_NONE) {
        OKA_ERROR("OKA: Mailbox '%s' cannot be created: the process has a root mailbox", name);
        return OKA_MAILBOX_NONE;
    }
    set_root_mailbox(create_mailbox(name));
    return root_mailbox();
}

oka_mailbox oka_clone_mailbox(oka_mailbox existing, const char* name) {
    if (!may_create(name))
        return OKA_MAILBOX_NONE;
    if (!is_local(existing)) {
        OKA_ERROR("OKA: Mailbox '%s' cannot be cloned from %u: there is none", name, existing);
        return OKA_MAILBOX_NONE;
    }
    return create_mailbox(name);
}

void oka_delete_mailbox(oka_mailbox id) {
    mailbox* deleted = find_local(id);
    if (!deleted)
        return;
    close_local(deleted);
    withdraw(id);
    drop_locates_of(id);
    drop_watches_of(id);
    finish_local(deleted);
}

void oka_send(oka_message** message, oka_mailbox receiver, oka_mailbox sender) {
    envelope* sent = take_envelope(message);
    if (!sent)
        return;
    const mailbox* to = find_mailbox(receiver);
    if (sent->size > OKA_MESSAGE_SIZE_MAX) {
        OKA_ERROR("OKA: Message 0x%x of %u bytes is too large to be sent", sent->message.number, sent->size);
        free_envelope(sent);
        return;
    }
    sent->from = origin::mailbox;
    sent->receiver = receiver;
    sent->sender = sender;
    if (!to || to->where == place::gone)
        free_envelope(sent);
    else if (to->where == place::local)
        enqueue(sent);
    else {
        if (!is_local(sender))
            sent->sender = OKA_MAILBOX_NONE;
        to->send(to->handle, sent);
    }
}

oka_message* oka_receive(const uint32_t* numbers, int32_t timeout_ms, uint32_t sender_selector) {
    rearm_watches();
    if (++core.receives_since_wait > receives_between_waits) {
        core.receives_since_wait = 0;
        queue_due_timers(now_ns());
        wait(0);
    }
    uint64_t give_up_ns = 0;
    bool waited = false;
    bool more = true;
    for (;;) {
        if (is_asked_to_end())
            return nullptr;
        if (envelope* taken = take_queued(numbers, sender_selector)) {
            if (taken->from == origin::mailbox || taken->from == origin::locate)
                note_known_through(taken->sender, taken->receiver);
            else if (taken->from == origin::watch)
                watch_received(taken->reference);
            return &taken->message;
        }
        if (!more)
            return nullptr;
        uint64_t now = now_ns();
        if (queue_due_timers(now))
            continue;
        if (!waited) {
            waited = true;
            give_up_ns = timeout_ms < 0 ? never_ns : now + static_cast<uint64_t>(timeout_ms) * 1'000'000u;
        } else if (now >= give_up_ns) {
            return nullptr;
        }
        core.receives_since_wait = 0;
        uint64_t timer_ns = next_timer_ns();
        more = wait(timer_ns < give_up_ns ? timer_ns : give_up_ns);
    }
}

void oka_locate_async(const char* name, oka_message** prepared, oka_mailbox mailbox_id) {
    envelope* message = take_envelope(prepared);
    if (!message)
        return;
    path wanted = {};
    if (!is_local(mailbox_id) || !split_path(name, wanted)) {
        OKA_ERROR("OKA: '%.350s' cannot be located for mailbox %u", name, mailbox_id);
        free_envelope(message);
        return;
    }
    uint32_t id = ++core.last_locate;
    auto* asked =
        new locate{.id = id, .next = nullptr, .asker = mailbox_id, .prepared = message, .wanted = wanted};
    locate** end = &core.locates;
    while (*end)
        end = &(*end)->next;
    *end = asked;
    if (const mailbox* found = find_wanted(wanted)) {
        answer_locate(id, found->id);
        return;
    }
    // Any of them may answer at once.
    const char* unit = is_own_unit(wanted.unit) ? "" : wanted.unit;
    for_transports_to(wanted, [&](const transport& each) { each.locate(id, unit, wanted.name); });
}
