// Waiting for descriptors: one epoll for the process. Clocks wait with it, transports and descriptor
// watches register with it.
#pragma once

#include <cstdint>

namespace oka {

// Embedded in the record that owns the descriptor. `ready` may unwatch any descriptor, its own too.
struct descriptor {
    int fd = -1;
    void (*ready)(void* context, uint32_t events) = nullptr;
    void* context = nullptr;
};

// `events` are epoll's. False, with errno set, when the kernel refuses.
bool watch(descriptor& watched, uint32_t events);
bool change_watch(descriptor& watched, uint32_t events);
void unwatch(descriptor& watched);
uint32_t watched_descriptors();
// Closes the epoll itself, unless a descriptor is still watched: a child process must not share it.
void release_descriptors();

// One system call: waits at most `timeout_ms` (-1 for ever) and calls `ready` for those that are. Whether
// any was.
bool wait_for_descriptors(int timeout_ms);

} // namespace oka
