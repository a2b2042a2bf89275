// The connected sockets of the links: how many there may be, and what each is on the way to.
#pragma once

#include <cstddef>
#include <cstdint>
#include <sys/types.h>

#include "platform/oka/core/core.h"
#include "platform/oka/core/descriptors.h"
#include "platform/oka/links/link.h"
#include "platform/oka/links/link_frames.h"

namespace oka {

enum class stage : uint8_t {
    // We connected:
    connecting, // and are not through yet
    greeting,   // and wait for the welcome
    // The other side connected, and is half-open until it attaches:
    arrived,  // it is to name the mailbox that it wants
    accepted, // its hello is to come
    welcomed, // and now it attaches or leaves
    attached,
};

struct connection {
    descriptor watched;
    connection* next = nullptr;
    stage now = stage::accepted;
    uint32_t pid = 0;
    process_id process = {}; // from the hello on
    oka_mailbox mailbox = OKA_MAILBOX_NONE;
    const family* over = nullptr;
    nonce challenge = {}; // ours
    proof expected = {};  // of who connected, from the hello on
    link_search* search = nullptr;
    uint32_t deadline = 0; // the timer of the greeting
    peer* of = nullptr;
};

// `closed` is called after every connection that was closed, until it is set to null.
void set_connection_closed(void (*closed)());

// Owns the socket; closes it and returns null when it cannot be watched.
connection* open_connection(const family& over, int fd, uint32_t pid, stage now,
                            void (*ready)(void* context, uint32_t events));
void close_connection(connection* closed);
void change_stage(connection& of, stage next);

// Any connection, or null: for closing all.
connection* any_connection();
size_t count_connections();
size_t count_connections_of(uint32_t pid);
// Makes room for one more that is half-open, at the cost of the same process if that has many.
void limit_half_open(uint32_t pid);

// The size of the next packet, 0 at the end, -1 with errno. A packet that is too large shows by its size.
ssize_t receive_packet(const connection& from, void* buffer, size_t size);
bool send_packet(const connection& to, const void* packet, size_t size);
// Whether the other side has closed, though what it sent before is still to be received.
bool has_hung_up(const connection& other);

} // namespace oka
