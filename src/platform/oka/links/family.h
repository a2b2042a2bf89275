// What a kind of socket has to know so that the links run over it: how a mailbox is published and who may
// connect to it, and how a mailbox is found and connected to. Everything else is the same for all kinds.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/oka.h"

namespace oka {

struct search;

// A mailbox by its names.
struct mailbox_address {
    const char* unit;
    const char* name;
};

// A socket that listens for a mailbox.
struct published_socket {
    int fd = -1;
    uint64_t identity[2] = {}; // the family's
};

// What has no default is needed. The table has external linkage, since it is a parameter of
// `stream_transport`.
struct family {
    const char* name; // in OKA_TRANSPORTS
    // Then who connects has to prove that it is of the node's group, and only mailboxes that are offered can
    // be found; others receive nothing but answers.
    bool between_hosts;
    // Returns 0 or an error number that it has reported.
    int (*start)(const char* own_unit);
    // After its last listener and search. Null when there is nothing to stop.
    void (*stop)() = nullptr;

    // The address of a connected socket, or of the one that it is connected to. Null when there is none.
    uint64_t (*socket_address)(int fd, bool other) = nullptr;

    // --- Listening

    // Whether other units may find a mailbox of that name. Null when they may find all.
    bool (*is_offered)(const char* name) = nullptr;
    // Whether they may find this one, and its address. Null when they may find all.
    bool (*find_offered)(oka_mailbox mailbox, mailbox_address& found) = nullptr;
    // Opens a socket that listens and can be found under the address. Returns 0 or an error number that it
    // has reported, EADDRINUSE when the name is taken.
    int (*publish)(const mailbox_address& at, published_socket& published);
    // It is no longer found; it is closed after this. Null when closing is enough.
    void (*withdraw)(const mailbox_address& at, const published_socket& published) = nullptr;
    // Whether it can still be found. Null when it always can.
    bool (*is_in_place)(const mailbox_address& at, const published_socket& published) = nullptr;
    // Calls restore_listeners when it may not be found any more. Null when it always is.
    void (*watch_place)(const mailbox_address& at) = nullptr;
    // Who is behind an accepted socket: the process, between hosts its machine. False, after reporting why,
    // when it may not connect.
    bool (*may_connect)(int fd, const mailbox_address& to, uint32_t& peer);
    // Whether the first packet of a connection names the mailbox that it came to. Null when connections begin
    // with the hello.
    bool (*admits)(oka_mailbox mailbox, uint32_t peer, const void* packet, size_t size) = nullptr;

    // --- Searching

    // Adds every place where the mailbox may be, now or soon, and goes on doing so when there are others.
    // Where nothing tells of new ones, a timer (call_later) adds them anew and calls try_places.
    void (*look)(search& of);
    // After the search was taken out of the list of searches.
    void (*stop_looking)(const search& of);
    // A socket that is connected to the place or, with `connects_later`, may still be connecting; and who is
    // there. -1 with errno: ENOENT when no mailbox is there now, and one that appears will be added.
    int (*connect)(const search& of, uint64_t place, uint32_t& peer);
    bool connects_later = false;
    // Sends the first packet, the one that `admits` expects. Null when there is none.
    bool (*introduce)(int fd, const mailbox_address& wanted) = nullptr;
};

} // namespace oka
