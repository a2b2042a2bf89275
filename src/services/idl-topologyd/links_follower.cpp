#include "services/idl-topologyd/links_follower.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/trace.h"
#include "platform/oka_watch.h"
#include "protocols/message_numbers.h"
#include "services/common/one_shot.h"

namespace topologyd {

namespace {

// How often a directory that does not exist is looked for.
constexpr uint32_t follow_retry_ms = 5000;

struct {
    links_follower_callbacks callbacks = {};
    oka_mailbox mailbox = OKA_MAILBOX_NONE;
    std::string path;
    std::string directory;
    std::string name; // of the file in its directory
    std::string error;
    int descriptor = -1;
    oka_watch_ref watch = 0;
    services::one_shot retry{FOLLOW_RETRY_IND};
} self;

void read_file() {
    links_file file = read_links_file(self.path.c_str());
    std::string error = file.is_good() ? "" : file.errors[0];
    if (file.is_good()) {
        TRACE_INFO("TOPOLOGYD: %s: %zu links in force", self.path.c_str(), file.links.size());
        self.callbacks.handle_links(file.links);
    } else if (error != self.error) {
        for (const std::string& each : file.errors)
            TRACE_ERROR("TOPOLOGYD: %s", each.c_str());
        TRACE_ERROR("TOPOLOGYD: The links of the last good file stay in force");
    }
    self.error = error;
    self.callbacks.handle_read();
}

void stop_following() {
    oka_unwatch(self.watch);
    self.watch = 0;
    if (self.descriptor >= 0)
        close(self.descriptor);
    self.descriptor = -1;
}

bool follow_directory() {
    self.descriptor = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (self.descriptor < 0)
        return false;
    // A file that is merely created is still empty; it counts once it is closed.
    constexpr uint32_t events = IN_CLOSE_WRITE | IN_MOVED_TO | IN_MOVED_FROM | IN_DELETE | IN_CREATE |
                                IN_ATTRIB | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;
    if (inotify_add_watch(self.descriptor, self.directory.c_str(), events) < 0)
        return false;
    self.watch = oka_watch(self.descriptor, self.mailbox, LINKS_FILE_CHANGED_IND);
    return self.watch != 0;
}

void follow() {
    if (!follow_directory()) {
        TRACE("TOPOLOGYD: %s: changes of the file cannot be followed: %s; trying again in %u ms",
              self.directory.c_str(), strerror(errno), follow_retry_ms);
        stop_following();
        self.retry.arm(follow_retry_ms);
    }
    read_file();
}

bool is_symbolic_link() {
    struct stat status;
    return lstat(self.path.c_str(), &status) == 0 && S_ISLNK(status.st_mode);
}

enum class news { none, file, directory };

news judge(const inotify_event& event) {
    if (event.mask & (IN_IGNORED | IN_DELETE_SELF | IN_MOVE_SELF | IN_UNMOUNT | IN_Q_OVERFLOW))
        return news::directory;
    if (event.len == 0 || self.name != event.name)
        return news::none;
    if ((event.mask & IN_CREATE) && !is_symbolic_link())
        return news::none;
    // Rights matter only while they may be what kept us from reading.
    if ((event.mask & IN_ATTRIB) && self.error.empty())
        return news::none;
    return news::file;
}

// Reads all events that wait, and tells the gravest.
news read_events() {
    news gravest = news::none;
    alignas(inotify_event) char buffer[4096];
    for (;;) {
        ssize_t length = read(self.descriptor, buffer, sizeof buffer);
        if (length < 0 && errno == EINTR)
            continue;
        if (length <= 0)
            return gravest;
        for (ssize_t at = 0; at < length;) {
            const auto* event = reinterpret_cast<const inotify_event*>(buffer + at);
            gravest = std::max(gravest, judge(*event));
            at += static_cast<ssize_t>(sizeof *event + event->len);
        }
    }
}

void handle_links_file_changed_ind() {
    switch (read_events()) {
    case news::none:
        return;
    case news::file:
        read_file();
        return;
    case news::directory:
        stop_following();
        follow();
        return;
    }
}

} // namespace

void links_follower_start(oka_mailbox mailbox, const char* path, const links_follower_callbacks* callbacks) {
    self.callbacks = *callbacks;
    self.mailbox = mailbox;
    self.path = path;
    size_t slash = self.path.rfind('/');
    self.name = self.path.substr(slash == std::string::npos ? 0 : slash + 1);
    self.directory = slash == std::string::npos ? "." : self.path.substr(0, std::max<size_t>(slash, 1));
    follow();
}

void links_follower_stop() {
    self.retry.stop();
    stop_following();
}

const char* links_follower_path() {
    return self.path.c_str();
}

const char* links_follower_error() {
    return self.error.c_str();
}

bool links_follower_dispatch_message(const oka_message* message) {
    if (message->number == LINKS_FILE_CHANGED_IND) {
        if (oka_sender(message) == OKA_MAILBOX_NONE && self.descriptor >= 0)
            handle_links_file_changed_ind();
        return true;
    }
    if (message->number == FOLLOW_RETRY_IND) {
        if (self.retry.take(message))
            follow();
        return true;
    }
    return false;
}

} // namespace topologyd
