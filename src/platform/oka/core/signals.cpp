#include "platform/oka/core/signals.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <sys/epoll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include "platform/oka/core/descriptors.h"
#include "platform/oka/core/oka_trace.h"

namespace oka {

namespace {

struct {
    descriptor watched;
    sigset_t before;
    bool has_come = false;
} self;

// Taken from the kernel, or it would strike when the signals are let through again.
void take_signal(void*, uint32_t) {
    signalfd_siginfo taken;
    while (read(self.watched.fd, &taken, sizeof taken) == sizeof taken)
        self.has_come = true;
}

} // namespace

bool watch_signals() {
    sigset_t asking;
    sigemptyset(&asking);
    sigaddset(&asking, SIGTERM);
    sigaddset(&asking, SIGINT);
    self.has_come = false;
    self.watched = {signalfd(-1, &asking, SFD_CLOEXEC | SFD_NONBLOCK), take_signal, nullptr};
    if (self.watched.fd < 0 || !watch(self.watched, EPOLLIN)) {
        OKA_ERROR("OKA: Signals cannot be watched: %s", strerror(errno));
        if (self.watched.fd >= 0)
            close(self.watched.fd);
        self.watched.fd = -1;
        return false;
    }
    sigprocmask(SIG_BLOCK, &asking, &self.before);
    return true;
}

void unwatch_signals() {
    if (self.watched.fd < 0)
        return;
    unwatch(self.watched);
    close(self.watched.fd);
    self.watched.fd = -1;
    sigprocmask(SIG_SETMASK, &self.before, nullptr);
}

bool is_asked_to_end() {
    return self.has_come;
}

} // namespace oka
