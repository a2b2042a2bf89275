#include "platform/oka/core/descriptors.h"

#include <cerrno>
#include <cstring>
#include <sys/epoll.h>
#include <unistd.h>

#include "platform/oka/core/oka_trace.h"

namespace {

constexpr int events_per_wait = 16;

struct {
    int epoll = -1;
    uint32_t watched = 0;
    epoll_event events[events_per_wait];
    int ready = 0; // of `events`, while their owners are called
} set;

bool open_epoll() {
    if (set.epoll < 0)
        set.epoll = epoll_create1(EPOLL_CLOEXEC);
    return set.epoll >= 0;
}

} // namespace

namespace oka {

bool watch(descriptor& watched, uint32_t events) {
    epoll_event event = {.events = events, .data = {.ptr = &watched}};
    if (!open_epoll() || epoll_ctl(set.epoll, EPOLL_CTL_ADD, watched.fd, &event) < 0)
        return false;
    ++set.watched;
    return true;
}

bool change_watch(descriptor& watched, uint32_t events) {
    epoll_event event = {.events = events, .data = {.ptr = &watched}};
    return epoll_ctl(set.epoll, EPOLL_CTL_MOD, watched.fd, &event) == 0;
}

void unwatch(descriptor& watched) {
    if (epoll_ctl(set.epoll, EPOLL_CTL_DEL, watched.fd, nullptr) == 0)
        --set.watched;
    // Its owner may be freed next, while an event for it may still be waiting to be handed out.
    for (int index = 0; index < set.ready; ++index) {
        if (set.events[index].data.ptr == &watched)
            set.events[index].data.ptr = nullptr;
    }
}

uint32_t watched_descriptors() {
    return set.watched;
}

void release_descriptors() {
    if (set.epoll < 0 || set.watched > 0)
        return;
    close(set.epoll);
    set.epoll = -1;
}

bool wait_for_descriptors(int timeout_ms) {
    if (!open_epoll()) {
        OKA_ERROR("OKA: No epoll: %s", strerror(errno));
        return false;
    }
    set.ready = epoll_wait(set.epoll, set.events, events_per_wait, timeout_ms);
    for (int index = 0; index < set.ready; ++index) {
        if (auto* owner = static_cast<descriptor*>(set.events[index].data.ptr))
            owner->ready(owner->context, set.events[index].events);
    }
    bool any = set.ready > 0;
    set.ready = 0;
    return any;
}

} // namespace oka
