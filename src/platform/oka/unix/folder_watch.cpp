#include "platform/oka/unix/folder_watch.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sys/epoll.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

namespace oka::af_unix {

namespace {

constexpr uint32_t new_name = IN_CREATE | IN_MOVED_TO;
constexpr uint32_t going_away = IN_DELETE_SELF | IN_MOVE_SELF;

void read_changes(void* context, uint32_t) {
    auto& watch = *static_cast<folder_watch*>(context);
    alignas(inotify_event) char buffer[4096];
    ssize_t size = read(watch.inotify.fd, buffer, sizeof buffer);
    for (ssize_t at = 0; at < size;) {
        const auto* event = reinterpret_cast<const inotify_event*>(buffer + at);
        const char* name = event->len ? event->name : nullptr;
        // A leading "." is a socket that is not in place yet.
        if (!name || name[0] != '.')
            watch.changed(name);
        at += static_cast<ssize_t>(sizeof *event + event->len);
    }
    watch.settled();
}

bool open_folder_watch(folder_watch& watch) {
    if (watch.inotify.fd >= 0)
        return true;
    watch.inotify = {.fd = inotify_init1(IN_NONBLOCK | IN_CLOEXEC), .ready = read_changes, .context = &watch};
    if (watch.inotify.fd >= 0 && !oka::watch(watch.inotify, EPOLLIN)) {
        close(watch.inotify.fd);
        watch.inotify.fd = -1;
    }
    return watch.inotify.fd >= 0;
}

// Cuts a path short until the end of the scope.
class cut_path {
  public:
    cut_path(char* path, size_t length) : at_(path + length), cut_(*at_) { *at_ = '\0'; }
    ~cut_path() { *at_ = cut_; }
    cut_path(const cut_path&) = delete;
    cut_path& operator=(const cut_path&) = delete;

  private:
    char* at_;
    char cut_;
};

bool watch_path(const folder_watch& watch, char* path, size_t length, uint32_t events) {
    cut_path cut(path, length);
    return inotify_add_watch(watch.inotify.fd, length ? path : "/", events | IN_ONLYDIR | IN_MASK_ADD) >= 0;
}

bool is_folder(char* path, size_t length) {
    cut_path cut(path, length);
    struct stat status;
    return stat(path, &status) == 0 && S_ISDIR(status.st_mode);
}

size_t parent_of(const char* path, size_t length) {
    while (length > 0 && path[--length] != '/') {
    }
    return length;
}

// Goes from the folder upwards to the first part of its path that exists. If the part below has appeared
// meanwhile, no event would tell of it, so it starts again.
bool watch_deepest(const folder_watch& watch, char* path, uint32_t events) {
    size_t full = strlen(path);
    size_t below = 0; // the next part down, which does not exist
    for (size_t length = full;;) {
        if (watch_path(watch, path, length, going_away | (length == full ? events : new_name))) {
            if (length == full || !is_folder(path, below))
                return true;
            length = full;
            continue;
        }
        if ((errno != ENOENT && errno != ENOTDIR) || length == 0)
            return false;
        below = length;
        length = parent_of(path, length);
    }
}

} // namespace

bool watch_folder(folder_watch& watch, const folder_path& folder, uint32_t events) {
    folder_path copy = folder;
    if (!open_folder_watch(watch) || !watch_deepest(watch, copy.path, events))
        return false;
    // A folder further up may be renamed, and then the whole path is gone.
    size_t root = messaging_directory_length();
    for (size_t length = parent_of(copy.path, strlen(copy.path)); length >= root;
         length = parent_of(copy.path, length))
        (void)watch_path(watch, copy.path, length, going_away);
    return true;
}

void close_folder_watch(folder_watch& watch) {
    if (watch.inotify.fd < 0)
        return;
    unwatch(watch.inotify);
    close(watch.inotify.fd);
    watch.inotify.fd = -1;
}

} // namespace oka::af_unix
