// Links between processes, over connected SOCK_SEQPACKET sockets of any family: the handshake, the frames,
// the mailboxes of the other process and its death. Listening, searching and access rights are not handled
// here.
//
// A process draws a random number when it starts. All connections to the process with that number are one
// peer, so that each of its mailboxes has one id. The side that connects sends its number in a hello and
// receives the other's in a welcome. If the two are not attached yet, it attaches the connection; otherwise
// it closes it. The end of a connection that was never attached does not mean that a process died. In welcome
// and attach each side proves, where that is needed, that it is of the node's group (group.h). A connection
// that is not attached after a few seconds is closed.
//
// Each side sends on one connection only, the first that was attached, which keeps messages in order. The
// lookup of a mailbox goes over that connection too, so that its answer and the news that the mailbox is gone
// cannot overtake each other.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/oka/core/core.h"

namespace oka {

struct connection;
struct family;
struct peer;

// One search for a mailbox behind a connected socket; embedded in the record of the search.
struct link_search {
    // Either is called once for every begin_link, unless cancel_link comes first.
    void (*found)(link_search& search, oka_mailbox mailbox) = nullptr;
    void (*failed)(link_search& search) = nullptr;
    // Sends what comes before the hello; false when that fails. Null when there is nothing.
    bool (*introduce)(link_search& search, int fd) = nullptr;

    bool busy() const { return greeting || asked; }

    // The link's own.
    connection* greeting = nullptr;
    peer* asked = nullptr;
    uint32_t asked_mailbox = 0;
    link_search* next_asking = nullptr;
};

// Once for each transport. `room_again` is called when a connection was closed, for a listener that stopped
// accepting. False, with errno, when there are no random numbers.
bool start_links(void (*room_again)());
void stop_links();

// Whether one more connection may be opened or accepted.
bool room_for_link();
// A socket that was accepted for a mailbox of this process; owns the socket. `pid` is the process at the
// other end as the kernel tells it, between hosts its machine: only connections with the same one are a peer.
void accept_link(const family& over, int fd, uint32_t pid, oka_mailbox mailbox);
// A socket that is connected, or still connecting, to what should be the wanted mailbox. Owns the socket. May
// fail at once.
void begin_link(const family& over, link_search& search, int fd, uint32_t pid, bool connected);
void cancel_link(link_search& search);

// Tells all peers that a mailbox of this process is gone.
void tell_gone(oka_mailbox mailbox);

} // namespace oka
