#include "platform/oka/unix/unix_search.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sys/inotify.h>

#include "platform/oka/core/core.h"
#include "platform/oka/core/oka_trace.h"
#include "platform/oka/links/link.h"
#include "platform/oka/unix/folder_watch.h"
#include "platform/oka/unix/unix_directory.h"

namespace oka {

namespace {

// Only when the file system cannot tell of changes, or when whoever was found did not answer, a search tries
// again after a while, and less and less often.
constexpr uint64_t first_retry_ms = 100;
constexpr uint64_t longest_retry_ms = 4'000;

struct search {
    link_search link; // first: the link's callbacks get this one
    search* next;
    uint32_t locate;
    unit_folder* folder;
    char name[OKA_MAILBOX_NAME_SIZE];
    bool changed;  // since the last attempt began
    bool reported; // what keeps it from finding
    uint32_t retry_timer;
    uint64_t retry_ms;
};

void note_change(const char* name);
void attempt_changed();

struct {
    search* all = nullptr;
    folder_watch folders = {.changed = note_change, .settled = attempt_changed};
} searches;

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
    of.retry_timer = call_later(of.retry_ms, retry, &of);
}

void report_once(search& of, const char* reason) {
    if (!of.reported)
        OKA_ERROR("OKA: Mailbox '%s' in '%.500s' cannot be reached: %s", of.name, of.folder->path, reason);
    of.reported = true;
}

void handle_found(link_search& link, oka_mailbox mailbox) {
    answer_locate(reinterpret_cast<search&>(link).locate, mailbox);
}

void handle_failed(link_search& link) {
    auto& of = reinterpret_cast<search&>(link);
    if (of.changed)
        attempt(of);
    else
        retry_later(of);
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

void note_change(const char* name) {
    for (search* each = searches.all; each; each = each->next)
        each->changed |= !name || is_part_of_path(*each, name);
}

search* next_to_attempt() {
    search* each = searches.all;
    while (each && !(each->changed && !each->link.busy()))
        each = each->next;
    return each;
}

void attempt_changed() {
    while (search* changed = next_to_attempt())
        attempt(*changed);
}

// The descriptor of a connection, or -1 with errno.
int try_to_connect(const search& of, uint32_t& pid) {
    errno = EAGAIN;
    return room_for_link() ? connect_socket(*of.folder, of.name, pid) : -1;
}

// Most mailboxes exist when they are searched. Only for those that do not are the folders watched, since
// giving such a watch up again makes the kernel wait for several milliseconds.
void attempt(search& of) {
    of.changed = false;
    cancel_call(of.retry_timer);
    of.retry_timer = 0;
    uint32_t pid = 0;
    bool notified = false;
    int fd = try_to_connect(of, pid);
    if (fd < 0 && errno == ENOENT) {
        notified = watch_folder(searches.folders, *of.folder, IN_CREATE | IN_MOVED_TO);
        if (!notified)
            report_once(of, strerror(errno));
        fd = try_to_connect(of, pid); // it may have appeared meanwhile
    }
    if (fd >= 0) {
        begin_link(of.link, fd, pid);
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

} // namespace

void start_search(uint32_t id, const char* unit, const char* name) {
    auto* fresh = new search{};
    fresh->folder = new unit_folder;
    fresh->link.found = handle_found;
    fresh->link.failed = handle_failed;
    fresh->locate = id;
    snprintf(fresh->name, sizeof fresh->name, "%s", name);
    fresh->next = searches.all;
    searches.all = fresh;
    if (folder_of(unit, *fresh->folder))
        attempt(*fresh);
    else
        report_once(*fresh, strerror(ENAMETOOLONG));
}

void cancel_search(uint32_t id) {
    search** link = &searches.all;
    while (*link && (*link)->locate != id)
        link = &(*link)->next;
    if (!*link)
        return;
    search* ended = *link;
    *link = ended->next;
    cancel_link(ended->link);
    cancel_call(ended->retry_timer);
    delete ended->folder;
    delete ended;
    // With the last search go all watches, also those that earlier ones left.
    if (!searches.all)
        close_folder_watch(searches.folders);
}

} // namespace oka
