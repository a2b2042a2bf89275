#include "platform/oka/unix/unix_listener.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sys/epoll.h>
#include <sys/inotify.h>
#include <sys/socket.h>
#include <unistd.h>

#include "platform/oka/core/descriptors.h"
#include "platform/oka/core/oka_trace.h"
#include "platform/oka/links/link.h"
#include "platform/oka/unix/folder_watch.h"
#include "platform/oka/unix/unix_directory.h"

namespace oka {

namespace {

// Accepting failed for want of descriptors or memory.
constexpr uint64_t accept_pause_ms = 1'000;
// Whoever removes our sockets is given the time to finish before they are put back.
constexpr uint64_t first_restore_ms = 1'000;
constexpr uint64_t longest_restore_ms = 4'000;

struct listener {
    listener* next;
    descriptor watched;
    oka_mailbox mailbox;
    published_socket socket;
    char name[OKA_MAILBOX_NAME_SIZE];
};

void socket_removed(const char* name);
void nothing_more() {}

struct {
    listener* all = nullptr;
    bool accepting = true;
    uint32_t accept_timer = 0;
    folder_watch folder = {.changed = socket_removed, .settled = nothing_more};
    uint32_t restore_timer = 0;
    uint64_t restore_ms = first_restore_ms;
} listeners;

void set_accepting(bool accepting) {
    listeners.accepting = accepting;
    for (listener* each = listeners.all; each; each = each->next)
        (void)change_watch(each->watched, accepting ? static_cast<uint32_t>(EPOLLIN) : 0u);
}

void accept_after_pause(void*) {
    listeners.accept_timer = 0;
    set_accepting(true);
}

bool means_too_few_resources(int error) {
    return error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM;
}

void pause_accepting(int error) {
    OKA_ERROR("OKA: Connections cannot be accepted: %s", strerror(error));
    set_accepting(false);
    if (!listeners.accept_timer)
        listeners.accept_timer = call_later(accept_pause_ms, accept_after_pause, nullptr);
}

// One a call: the others are still there when the socket is looked at next.
void accept_one(void* context, uint32_t) {
    const auto* at = static_cast<listener*>(context);
    if (!room_for_link()) {
        set_accepting(false);
        return;
    }
    int fd = accept4(at->watched.fd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd < 0) {
        if (means_too_few_resources(errno))
            pause_accepting(errno);
        return;
    }
    unit_folder folder;
    uint32_t pid = 0;
    if (!folder_of("", folder) || !peer_allowed(fd, folder, pid)) {
        OKA_ERROR("OKA: Process %u may not connect to '%s': it is another user's", pid, at->name);
        close(fd);
        return;
    }
    accept_link(fd, pid, at->mailbox);
}

void close_socket(listener& closed) {
    if (closed.socket.fd < 0)
        return;
    unwatch(closed.watched);
    close(closed.socket.fd);
    closed.socket.fd = -1;
    closed.watched.fd = -1;
}

// Returns 0 or an error number that is reported.
int open_socket(listener& opened) {
    if (int error = publish_socket(opened.name, opened.socket))
        return error;
    opened.watched = {.fd = opened.socket.fd, .ready = accept_one, .context = &opened};
    if (watch(opened.watched, listeners.accepting ? static_cast<uint32_t>(EPOLLIN) : 0u))
        return 0;
    int error = errno;
    OKA_ERROR("OKA: Mailbox '%s' cannot be watched: %s", opened.name, strerror(error));
    unpublish_socket(opened.name, opened.socket);
    close(opened.socket.fd);
    opened.socket.fd = -1;
    opened.watched.fd = -1;
    return error;
}

void watch_own_folder() {
    unit_folder folder;
    if (!folder_of("", folder) || !watch_folder(listeners.folder, folder, IN_DELETE))
        OKA_ERROR("OKA: '%.500s' cannot be watched: %s", folder.path, strerror(errno));
}

// Connections live on without their socket's file; the file is for those that are still to come.
void restore_sockets(void*) {
    listeners.restore_timer = 0;
    bool complete = true;
    for (listener* each = listeners.all; each; each = each->next) {
        if (each->socket.fd >= 0 && socket_in_place(each->name, each->socket))
            continue;
        close_socket(*each);
        complete &= open_socket(*each) == 0;
    }
    watch_own_folder();
    listeners.restore_ms =
        complete ? first_restore_ms : std::min(listeners.restore_ms * 2, longest_restore_ms);
    if (!complete)
        listeners.restore_timer = call_later(listeners.restore_ms, restore_sockets, nullptr);
}

void restore_soon() {
    if (!listeners.restore_timer)
        listeners.restore_timer = call_later(first_restore_ms, restore_sockets, nullptr);
}

void socket_removed(const char* name) {
    bool ours = !name;
    for (const listener* each = listeners.all; each && !ours; each = each->next)
        ours = !strcmp(each->name, name);
    if (ours)
        restore_soon();
}

} // namespace

bool announce_listener(oka_mailbox mailbox, const char* name) {
    auto* fresh = new listener{};
    snprintf(fresh->name, sizeof fresh->name, "%s", name);
    fresh->mailbox = mailbox;
    int error = open_socket(*fresh);
    // The first one shows whether the folder can be used at all. When it is full or closed later, a mailbox
    // works without its socket, but that nobody new finds it; the socket follows as soon as it can.
    if (error && (!listeners.all || error == EADDRINUSE)) {
        delete fresh;
        return false;
    }
    if (error)
        restore_soon();
    if (!listeners.all)
        watch_own_folder();
    fresh->next = listeners.all;
    listeners.all = fresh;
    return true;
}

void withdraw_listener(oka_mailbox mailbox) {
    listener** link = &listeners.all;
    while (*link && (*link)->mailbox != mailbox)
        link = &(*link)->next;
    if (!*link)
        return;
    listener* ended = *link;
    *link = ended->next;
    // The file goes first: while the socket listens nobody takes it for a stale one and puts another there.
    unpublish_socket(ended->name, ended->socket);
    close_socket(*ended);
    delete ended;
    tell_gone(mailbox);
    if (!listeners.all)
        stop_listening();
}

void listen_again() {
    if (!listeners.accepting && !listeners.accept_timer)
        set_accepting(true);
}

void stop_listening() {
    close_folder_watch(listeners.folder);
    cancel_call(listeners.accept_timer);
    cancel_call(listeners.restore_timer);
    listeners.accept_timer = 0;
    listeners.restore_timer = 0;
    listeners.accepting = true;
}

} // namespace oka
