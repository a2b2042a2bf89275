#include "platform/oka/unix/unix_transport.h"

#include <cerrno>
#include <cstring>
#include <sys/inotify.h>
#include <unistd.h>

#include "platform/oka/core/oka_trace.h"
#include "platform/oka/links/stream_transport.h"
#include "platform/oka/unix/folder_watch.h"
#include "platform/oka/unix/unix_directory.h"

namespace oka::af_unix {

extern const family sockets;

namespace {

// There is only one place where a mailbox can be: the file of its name.
constexpr uint64_t the_file = 0;

void note_removed(const char* name);
void note_changed(const char* name);
void look_at_changed();

folder_watch own_folder = {.changed = note_removed, .settled = [] {}};
folder_watch searched_folders = {.changed = note_changed, .settled = look_at_changed};

// --- Listening

void watch_own_folder(const mailbox_address& at) {
    folder_path folder = folder_of(at);
    if (!watch_folder(own_folder, folder, IN_DELETE))
        OKA_ERROR("OKA: '%.500s' cannot be watched: %s", folder.path, strerror(errno));
}

void note_removed(const char* name) {
    if (!name || is_listening(name))
        restore_listeners();
}

bool may_connect(int fd, const mailbox_address& to, uint32_t& peer) {
    if (peer_allowed(fd, folder_of(to), peer))
        return true;
    OKA_ERROR("OKA: Process %u may not connect to '%s': it is another user's", peer, to.name);
    return false;
}

// --- Searching

void look(search& of) {
    add_place(of, the_file);
}

bool is_on_the_way_to(const mailbox_address& wanted, const char* changed) {
    if (!strcmp(wanted.name, changed))
        return true;
    folder_path folder = folder_of(wanted);
    size_t length = strlen(changed);
    for (const char* part = folder.path; part; part = strchr(part, '/')) {
        ++part;
        if (!strncmp(part, changed, length) && (part[length] == '/' || part[length] == '\0'))
            return true;
    }
    return false;
}

void note_changed(const char* name) {
    for (search* each = next_search(sockets, nullptr); each; each = next_search(sockets, each)) {
        if (!name || is_on_the_way_to(each->wanted(), name))
            add_place(*each, the_file);
    }
}

void look_at_changed() {
    try_places(sockets);
}

// Most mailboxes exist when they are searched for. The folders are watched only for the others, since the
// kernel needs several milliseconds to end such a watch.
int connect_watched(const search& of, uint64_t, uint32_t& peer) {
    folder_path folder = folder_of(of.wanted());
    int fd = connect_socket(folder, of.name, peer);
    if (fd >= 0 || errno != ENOENT)
        return fd;
    bool is_watched = watch_folder(searched_folders, folder, IN_CREATE | IN_MOVED_TO);
    int error = errno;
    fd = connect_socket(folder, of.name, peer); // it may have appeared meanwhile
    if (fd < 0 && errno == ENOENT && !is_watched)
        errno = error;
    return fd;
}

void stop_looking(const search&) {
    // The last search ends all watches, those of earlier searches too.
    if (!next_search(sockets, nullptr))
        close_folder_watch(searched_folders);
}

} // namespace

constexpr family sockets = {
    .name = "unix",
    .between_hosts = false,
    .start = use_messaging_directory,
    .stop = [] { close_folder_watch(own_folder); },
    .publish = publish,
    .withdraw = unpublish,
    .is_in_place = is_in_place,
    .watch_place = watch_own_folder,
    .may_connect = may_connect,
    .look = look,
    .stop_looking = stop_looking,
    .connect = connect_watched,
};

} // namespace oka::af_unix

const oka::transport oka::unix_transport = oka::stream_transport<oka::af_unix::sockets>;
