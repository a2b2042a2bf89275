// Links between processes, over connected SOCK_SEQPACKET sockets of any family: the handshake, the frames,
// the mailboxes of the other process and its death. How such a socket comes about, and who may have one, is
// the transport's business.
//
// A process is known by a random number of its own, so that all connections to it are one peer and its
// mailboxes have one id each. The side that connects says who it is, learns who answered, and then either
// attaches the connection or, when the two are attached already, closes it again; a connection that was
// never attached is nobody's death. Each side sends on one connection only, the first that it attached or
// saw attached, which keeps the order. It then asks for the mailbox on that connection: so the answer stands
// in order with the news that the mailbox is gone.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/oka/core/core.h"

namespace oka {

struct connection;
struct peer;

// One search for a mailbox behind a connected socket; embedded in the record of whoever searches.
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

// Whether the first packet of a connection names the mailbox that it came to.
using admits_packet = bool (*)(oka_mailbox mailbox, uint32_t pid, const void* packet, size_t size);

// Once for each transport. `room_again` is called when a connection was closed, for a listener that stopped
// accepting. False, with errno, when there are no random numbers.
bool start_links(void (*room_again)());
void stop_links();

// Whether one more connection may be opened or accepted.
bool room_for_link();
// A socket that was accepted on behalf of a mailbox of this process. Owns the socket. `pid` is the process
// that the kernel says is behind it, between hosts its machine: nobody joins the connections of another one.
// `admits` is null when connections begin with the hello.
void accept_link(int fd, uint32_t pid, oka_mailbox mailbox, admits_packet admits);
// A socket that is connected, or still connecting, to what should be the wanted mailbox. Owns the socket. May
// fail at once.
void begin_link(link_search& search, int fd, uint32_t pid, bool connected);
void cancel_link(link_search& search);

// Tells all peers that a mailbox of this process is gone.
void tell_gone(oka_mailbox mailbox);

} // namespace oka
