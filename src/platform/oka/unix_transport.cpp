#include "platform/oka/unix_transport.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sys/epoll.h>
#include <sys/inotify.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/oka/descriptors.h"
#include "platform/oka/link.h"
#include "platform/oka/names.h"
#include "platform/oka/oka_trace.h"
#include "platform/oka/unix_directory.h"

namespace {

using oka::link_search;

// A search waits for the file system to say that something changed. Only when it cannot, or when whoever
// it found did not answer, it tries again after a while, and less and less often.
constexpr uint64_t first_retry_ms = 100;
constexpr uint64_t longest_retry_ms = 30'000;
// Accepting failed for want of descriptors or memory.
constexpr uint64_t accept_pause_ms = 1'000;

constexpr uint32_t any_new_name = IN_CREATE | IN_MOVED_TO;
constexpr uint32_t folder_itself = IN_DELETE_SELF | IN_MOVE_SELF;

struct listener {
    listener* next;
    oka::descriptor watched;
    oka_mailbox mailbox;
    oka::published_socket socket;
    char name[oka::mailbox_name_size];
};

struct search {
    link_search link; // first: the callbacks get this one
    search* next;
    uint32_t locate;
    oka::unit_folder* folder;
    char name[oka::mailbox_name_size];
    bool changed;  // since the last attempt began
    bool reported; // what keeps it from finding
    uint32_t retry_timer;
    uint64_t retry_ms;
};

struct {
    listener* listeners = nullptr;
    bool accepting = true;
    uint32_t accept_timer = 0;
    search* searches = nullptr;
    oka::descriptor inotify;
} transport;

// --- Mailboxes of this process

void set_accepting(bool accepting) {
    transport.accepting = accepting;
    for (listener* each = transport.listeners; each; each = each->next)
        (void)oka::change_watch(each->watched, accepting ? static_cast<uint32_t>(EPOLLIN) : 0u);
}

void accept_again(void*) {
    transport.accept_timer = 0;
    set_accepting(true);
}

void room_again() {
    if (!transport.accepting && !transport.accept_timer)
        set_accepting(true);
}

void pause_accepting(int error) {
    set_accepting(false);
    if (transport.accept_timer)
        return;
    OKA_ERROR("OKA: Connections cannot be accepted: %s", strerror(error));
    transport.accept_timer = oka::call_later(accept_pause_ms, accept_again, nullptr);
}

bool means_too_few_resources(int error) {
    return error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM;
}

// One a call: the others are still there when the descriptor is looked at next.
void accept_one(void* context, uint32_t) {
    const auto* at = static_cast<listener*>(context);
    if (!oka::room_for_link()) {
        set_accepting(false);
        return;
    }
    int fd = accept4(at->watched.fd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd < 0) {
        if (means_too_few_resources(errno))
            pause_accepting(errno);
        return;
    }
    oka::unit_folder folder;
    uint32_t pid = 0;
    if (!oka::folder_of("", folder) || !oka::peer_allowed(fd, folder, pid)) {
        OKA_ERROR("OKA: Process %u may not connect to '%s': it is another user's", pid, at->name);
        close(fd);
        return;
    }
    oka::accept_link(fd, pid, at->mailbox);
}

bool announce(oka_mailbox mailbox, const char* name) {
    auto* fresh = new listener{};
    snprintf(fresh->name, sizeof fresh->name, "%s", name);
    fresh->mailbox = mailbox;
    if (!oka::publish_socket(name, fresh->socket)) {
        delete fresh;
        return false;
    }
    fresh->watched = {.fd = fresh->socket.fd, .ready = accept_one, .context = fresh};
    if (!oka::watch(fresh->watched, transport.accepting ? static_cast<uint32_t>(EPOLLIN) : 0u)) {
        OKA_ERROR("OKA: Mailbox '%s' cannot be watched: %s", name, strerror(errno));
        oka::unpublish_socket(name, fresh->socket);
        close(fresh->socket.fd);
        delete fresh;
        return false;
    }
    fresh->next = transport.listeners;
    transport.listeners = fresh;
    return true;
}

void withdraw(oka_mailbox mailbox) {
    listener** link = &transport.listeners;
    while (*link && (*link)->mailbox != mailbox)
        link = &(*link)->next;
    if (!*link)
        return;
    listener* ended = *link;
    *link = ended->next;
    // The file goes first: while the socket listens nobody takes it for a stale one and puts his own there.
    oka::unpublish_socket(ended->name, ended->socket);
    oka::unwatch(ended->watched);
    close(ended->socket.fd);
    delete ended;
    oka::tell_gone(mailbox);
}

// --- Searches

void attempt(search& of);

void retry(void* context) {
    auto& of = *static_cast<search*>(context);
    of.retry_timer = 0;
    attempt(of);
}

void retry_later(search& of) {
    if (of.retry_timer)
        return;
    of.retry_ms = std::clamp(of.retry_ms * 2, first_retry_ms, longest_retry_ms);
    of.retry_timer = oka::call_later(of.retry_ms, retry, &of);
}

void report_once(search& of, const char* reason) {
    if (!of.reported)
        OKA_ERROR("OKA: Mailbox '%s' in '%.500s' cannot be reached: %s", of.name, of.folder->path, reason);
    of.reported = true;
}

void handle_found(link_search& link, oka_mailbox mailbox) {
    oka::answer_locate(reinterpret_cast<search&>(link).locate, mailbox);
}

void handle_failed(link_search& link) {
    auto& of = reinterpret_cast<search&>(link);
    if (of.changed)
        attempt(of);
    else
        retry_later(of);
}

// What the search depends on: that its folder, or the deepest part of its path that there is, gets a new
// name, and that none of the folders on the way goes away.
bool watch_folders(const search& of) {
    char path[sizeof of.folder->path];
    snprintf(path, sizeof path, "%s", of.folder->path);
    size_t full = strlen(path);
    size_t next_deeper = 0;
    for (size_t length = full;;) {
        char kept = path[length];
        path[length] = '\0';
        int watch = inotify_add_watch(transport.inotify.fd, length ? path : "/",
                                      any_new_name | folder_itself | IN_ONLYDIR | IN_MASK_ADD);
        int error = errno;
        path[length] = kept;
        if (watch >= 0) {
            // A deeper one that appeared meanwhile would never be seen.
            if (!next_deeper)
                break;
            path[next_deeper] = '\0';
            struct stat status;
            bool appeared = stat(path, &status) == 0 && S_ISDIR(status.st_mode);
            path[next_deeper] = next_deeper == full ? '\0' : '/';
            if (!appeared)
                break;
            length = next_deeper;
            next_deeper = 0;
            continue;
        }
        if ((error != ENOENT && error != ENOTDIR) || length == 0) {
            errno = error;
            return false;
        }
        next_deeper = length;
        while (length > 0 && path[--length] != '/') {
        }
    }
    for (size_t length = full - 1; length >= oka::messaging_directory_length(); --length) {
        if (path[length] != '/')
            continue;
        path[length] = '\0';
        (void)inotify_add_watch(transport.inotify.fd, path, folder_itself | IN_ONLYDIR | IN_MASK_ADD);
    }
    return true;
}

bool is_part_of_path(const search& of, const char* name) {
    if (!strcmp(of.name, name))
        return true;
    size_t length = strlen(name);
    for (const char* part = of.folder->path; part; part = strchr(part, '/')) {
        ++part;
        if (!strncmp(part, name, length) && (part[length] == '/' || part[length] == '\0'))
            return true;
    }
    return false;
}

void note_change(const inotify_event& event) {
    const char* name = event.len ? event.name : nullptr;
    if (name && name[0] == '.')
        return; // a socket that is not in place yet
    for (search* each = transport.searches; each; each = each->next)
        each->changed |= !name || is_part_of_path(*each, name);
}

search* next_to_attempt() {
    search* each = transport.searches;
    while (each && !(each->changed && !each->link.busy()))
        each = each->next;
    return each;
}

void folders_changed(void*, uint32_t) {
    alignas(inotify_event) char buffer[4096];
    ssize_t size = read(transport.inotify.fd, buffer, sizeof buffer);
    for (ssize_t at = 0; at < size;) {
        const auto* event = reinterpret_cast<const inotify_event*>(buffer + at);
        note_change(*event);
        at += static_cast<ssize_t>(sizeof *event + event->len);
    }
    while (search* changed = next_to_attempt())
        attempt(*changed);
}

bool open_inotify() {
    if (transport.inotify.fd >= 0)
        return true;
    transport.inotify = {.fd = inotify_init1(IN_NONBLOCK | IN_CLOEXEC), .ready = folders_changed};
    if (transport.inotify.fd < 0)
        return false;
    if (oka::watch(transport.inotify, EPOLLIN))
        return true;
    close(transport.inotify.fd);
    transport.inotify.fd = -1;
    return false;
}

void close_inotify() {
    if (transport.inotify.fd < 0)
        return;
    oka::unwatch(transport.inotify);
    close(transport.inotify.fd);
    transport.inotify.fd = -1;
}

void attempt(search& of) {
    of.changed = false;
    oka::cancel_call(of.retry_timer);
    of.retry_timer = 0;
    bool notified = open_inotify() && watch_folders(of);
    if (!notified)
        report_once(of, strerror(errno));
    uint32_t pid = 0;
    int fd = -1;
    errno = EAGAIN;
    if (oka::room_for_link())
        fd = oka::connect_socket(*of.folder, of.name, pid);
    if (fd >= 0) {
        oka::begin_link(of.link, fd, pid);
        return;
    }
    if (errno == ENOENT && notified) {
        of.retry_ms = 0;
        return;
    }
    // A full queue of connections is not worth a word.
    if (errno == EPERM)
        report_once(of, "it is another user's");
    else if (errno != EAGAIN && errno != ENOENT)
        report_once(of, strerror(errno));
    retry_later(of);
}

void locate(uint32_t id, const char* unit, const char* name) {
    auto* fresh = new search{};
    fresh->folder = new oka::unit_folder;
    fresh->link.found = handle_found;
    fresh->link.failed = handle_failed;
    fresh->locate = id;
    snprintf(fresh->name, sizeof fresh->name, "%s", name);
    fresh->next = transport.searches;
    transport.searches = fresh;
    if (oka::folder_of(unit, *fresh->folder))
        attempt(*fresh);
    else
        report_once(*fresh, strerror(ENAMETOOLONG));
}

void cancel_locate(uint32_t id) {
    search** link = &transport.searches;
    while (*link && (*link)->locate != id)
        link = &(*link)->next;
    if (!*link)
        return;
    search* ended = *link;
    *link = ended->next;
    oka::cancel_link(ended->link);
    oka::cancel_call(ended->retry_timer);
    delete ended->folder;
    delete ended;
    // With the last search go all watches, also those that earlier ones left.
    if (!transport.searches)
        close_inotify();
}

int start(const char* own_unit) {
    if (int error = oka::set_messaging_directory(own_unit))
        return error;
    if (!oka::start_links(room_again)) {
        OKA_ERROR("OKA: No random numbers: %s", strerror(errno));
        return errno;
    }
    transport.accepting = true;
    return 0;
}

void stop() {
    oka::stop_links();
    oka::cancel_call(transport.accept_timer);
    transport.accept_timer = 0;
}

} // namespace

const oka::transport oka::unix_transport = {.name = "unix",
                                            .between_hosts = false,
                                            .start = start,
                                            .stop = stop,
                                            .announce = announce,
                                            .withdraw = withdraw,
                                            .locate = locate,
                                            .cancel_locate = cancel_locate};
