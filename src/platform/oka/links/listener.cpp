#include "platform/oka/links/listener.h"

#include <cassert>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "platform/oka/core/core.h"
#include "platform/oka/core/descriptors.h"
#include "platform/oka/core/oka_trace.h"
#include "platform/oka/links/back_off.h"
#include "platform/oka/links/link.h"

namespace oka {

namespace {

// Accepting failed, for want of descriptors or memory or for another reason that does not pass at once.
constexpr uint64_t accept_pause_ms = 1'000;
// A program that removes our sockets is given the time to finish before they are put back.
constexpr back_off restore_times = {.first_ms = 1'000, .longest_ms = 4'000};

struct listener {
    listener* next;
    const family* over;
    descriptor watched;
    oka_mailbox mailbox;
    bool is_offered;
    published_socket socket; // without a descriptor while it cannot be published, or is not offered
    char name[OKA_MAILBOX_NAME_SIZE];

    mailbox_address at() const { return {own_unit(), name}; }
};

struct {
    listener* all = nullptr;
    bool accepting = true;
    uint32_t accept_timer = 0;
    uint32_t restore_timer = 0;
    back_off restore = restore_times;
} listeners;

template<typename Predicate>
listener** find_link(Predicate wanted) {
    listener** link = &listeners.all;
    while (*link && !wanted(**link))
        link = &(*link)->next;
    return link;
}

listener** find(const family& over, oka_mailbox mailbox) {
    return find_link([&](const listener& each) { return each.over == &over && each.mailbox == mailbox; });
}

// --- Accepting

uint32_t wanted_events() {
    return listeners.accepting ? static_cast<uint32_t>(EPOLLIN) : 0u;
}

void set_accepting(bool accepting) {
    listeners.accepting = accepting;
    for (listener* each = listeners.all; each; each = each->next) {
        if (each->socket.fd >= 0)
            (void)change_watch(each->watched, wanted_events());
    }
}

void accept_after_pause(void*) {
    listeners.accept_timer = 0;
    set_accepting(true);
}

void pause_accepting(int error) {
    OKA_ERROR("OKA: Connections cannot be accepted: %s", strerror(error));
    set_accepting(false);
    if (!listeners.accept_timer)
        listeners.accept_timer = call_later(accept_pause_ms, accept_after_pause, nullptr);
}

// There is no connection, or no longer. Any other error would come again at once.
bool means_no_connection(int error) {
    return error == EAGAIN || error == EINTR || error == ECONNABORTED;
}

// One a call: the others are still there when the socket is looked at next.
void accept_one(void* context, uint32_t) {
    const auto& at = *static_cast<listener*>(context);
    if (!room_for_link()) {
        set_accepting(false);
        return;
    }
    int fd = accept4(at.watched.fd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd < 0) {
        if (!means_no_connection(errno))
            pause_accepting(errno);
        return;
    }
    uint32_t peer = 0;
    if (at.over->may_connect(fd, at.at(), peer))
        accept_link(*at.over, fd, peer, at.mailbox);
    else
        close(fd);
}

// --- Sockets

void close_socket(listener& closed) {
    if (closed.socket.fd < 0)
        return;
    // The name is removed first: while the socket still listens, no other process takes it for a stale one
    // and replaces it.
    if (closed.over->withdraw)
        closed.over->withdraw(closed.at(), closed.socket);
    unwatch(closed.watched);
    close(closed.socket.fd);
    closed.socket = {};
}

// Returns 0 or an error number that is reported.
int open_socket(listener& opened) {
    assert(opened.socket.fd < 0);
    if (int error = opened.over->publish(opened.at(), opened.socket))
        return error;
    opened.watched = {.fd = opened.socket.fd, .ready = accept_one, .context = &opened};
    if (watch(opened.watched, wanted_events()))
        return 0;
    int error = errno;
    OKA_ERROR("OKA: Mailbox '%s' cannot be watched: %s", opened.name, strerror(error));
    close_socket(opened);
    return error;
}

bool is_in_place(const listener& each) {
    if (!each.is_offered)
        return true;
    return each.socket.fd >= 0 && (!each.over->is_in_place || each.over->is_in_place(each.at(), each.socket));
}

void watch_place(const listener& of) {
    if (of.is_offered && of.over->watch_place)
        of.over->watch_place(of.at());
}

// Existing connections do not need the name of the socket; new ones do.
void restore_sockets(void*) {
    listeners.restore_timer = 0;
    bool complete = true;
    for (listener* each = listeners.all; each; each = each->next) {
        if (!is_in_place(*each)) {
            close_socket(*each);
            complete &= open_socket(*each) == 0;
        }
        watch_place(*each);
    }
    if (complete)
        listeners.restore.reset();
    else
        restore_listeners();
}

} // namespace

bool announce_listener(const family& over, oka_mailbox mailbox, const char* name) {
    auto* fresh = new listener{};
    snprintf(fresh->name, sizeof fresh->name, "%s", name);
    fresh->over = &over;
    fresh->mailbox = mailbox;
    fresh->is_offered = !over.is_offered || over.is_offered(name);
    bool is_first = !*find_link([&](const listener& each) { return each.over == &over && each.is_offered; });
    int error = fresh->is_offered ? open_socket(*fresh) : 0;
    // If the first one cannot be published, the environment is wrong, and that is an error. If a later one
    // cannot, resources are short: the mailbox works for those that know it, and is published as soon as
    // possible.
    if (error && (is_first || error == EADDRINUSE)) {
        delete fresh;
        return false;
    }
    if (error)
        restore_listeners();
    watch_place(*fresh);
    fresh->next = listeners.all;
    listeners.all = fresh;
    return true;
}

void withdraw_listener(const family& over, oka_mailbox mailbox) {
    listener** link = find(over, mailbox);
    if (!*link)
        return;
    listener* ended = *link;
    *link = ended->next;
    close_socket(*ended);
    delete ended;
    if (!*find_link([=](const listener& each) { return each.mailbox == mailbox; }))
        tell_gone(mailbox);
}

void stop_listening() {
    cancel_call(listeners.accept_timer);
    cancel_call(listeners.restore_timer);
    listeners.accept_timer = 0;
    listeners.restore_timer = 0;
    listeners.restore.reset();
    set_accepting(true);
}

bool find_listener(const family& over, oka_mailbox mailbox, mailbox_address& found) {
    const listener* listening = *find(over, mailbox);
    if (!listening || !listening->is_offered)
        return false;
    found = listening->at();
    return true;
}

bool is_listening(const char* name) {
    return *find_link([=](const listener& each) { return !strcmp(each.name, name); });
}

void restore_listeners() {
    if (!listeners.restore_timer)
        listeners.restore_timer = call_later(listeners.restore.next_ms(), restore_sockets, nullptr);
}

void listen_again() {
    if (!listeners.accepting && !listeners.accept_timer)
        set_accepting(true);
}

} // namespace oka
