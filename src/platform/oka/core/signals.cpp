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

// A signal that is not read here would end the process when the signals are no longer blocked.
void read_signals(void*, uint32_t) {
    signalfd_siginfo signal;
    while (read(self.watched.fd, &signal, sizeof signal) == sizeof signal)
        self.has_come = true;
}

} // namespace

bool watch_signals() {
    sigset_t end_signals;
    sigemptyset(&end_signals);
    sigaddset(&end_signals, SIGTERM);
    sigaddset(&end_signals, SIGINT);
    self.has_come = false;
    self.watched = {signalfd(-1, &end_signals, SFD_CLOEXEC | SFD_NONBLOCK), read_signals, nullptr};
    if (self.watched.fd < 0 || !watch(self.watched, EPOLLIN)) {
        OKA_ERROR("OKA: Signals cannot be watched: %s", strerror(errno));
        if (self.watched.fd >= 0)
            close(self.watched.fd);
        self.watched.fd = -1;
        return false;
    }
    sigprocmask(SIG_BLOCK, &end_signals, &self.before);
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
