#include "platform/oka/links/link.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <malloc.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

#include "platform/oka/core/id_table.h"
#include "platform/oka/core/oka_trace.h"
#include "platform/oka/links/link_frames.h"

namespace oka {

namespace {

// What a peer that does not read may cost, in bytes that wait for it here, beside what the kernel holds.
constexpr size_t backlog_limit = size_t{1} << 20;
// And all such peers together; then the one with the most has to go.
constexpr size_t backlogs_limit = size_t{4} << 20;
constexpr size_t connections_limit = 512;
// One process alone does not keep the others out. Whoever means well has two.
constexpr size_t connections_per_process_limit = 128;
// Accepted connections that have not said who they are; the oldest makes room for the next.
constexpr size_t strangers_limit = 64;
constexpr size_t mailboxes_per_peer_limit = 256;
// Frames that a peer at its end may still have sent: more than TIPC lets wait on a connection.
constexpr int rest_limit = 1024;
// One that we attached and one that the other side did.
constexpr size_t connections_per_peer = 2;

struct remote_mailbox {
    uint32_t id; // as its own process knows it
    remote_mailbox* next_in_table;
    peer* of;
    oka_mailbox known_as;
};

enum class stage : uint8_t {
    greeting, // we connected and wait for the welcome
    accepted, // the other side connected, its hello is to come
    welcomed, // and now it attaches or leaves
    attached,
};

} // namespace

struct connection {
    descriptor watched;
    connection* next = nullptr;
    stage now = stage::accepted;
    uint32_t pid = 0;
    process_id process = {}; // from the hello on
    oka_mailbox mailbox = OKA_MAILBOX_NONE;
    link_search* search = nullptr;
    peer* of = nullptr;
};

struct peer {
    peer* next = nullptr;
    process_id process = {};
    uint32_t pid = 0;
    connection* connections[connections_per_peer] = {};
    connection* sending = nullptr;
    bool finishing = false; // or the other side no longer reads: nothing is sent any more
    envelope* backlog = nullptr;
    envelope** backlog_end = &backlog;
    size_t backlog_bytes = 0;
    id_table<remote_mailbox, 32> mailboxes;
    link_search* asking = nullptr;
};

namespace {

struct {
    bool up = false;
    process_id process;
    void (*room_again[transports_at_once])() = {};
    peer* peers = nullptr;
    connection* connections = nullptr; // the newest first
    size_t connection_count = 0;
    size_t stranger_count = 0;
    size_t backlog_bytes = 0;                             // of all peers
    size_t highest_backlog_bytes = 0;                     // since the last time that there was none
    alignas(8) unsigned char received[largest_frame + 1]; // one that is too large shows by its size
} links;

bool same(const process_id& one, const process_id& other) {
    return !memcmp(&one, &other, sizeof one);
}

void finish(peer* gone);

// --- Connections

connection* new_connection(int fd, uint32_t pid, stage now);

bool is_stranger(const connection& each) {
    return each.now == stage::accepted || each.now == stage::welcomed;
}

void close_connection(connection* closed) {
    connection** link = &links.connections;
    while (*link != closed)
        link = &(*link)->next;
    *link = closed->next;
    --links.connection_count;
    links.stranger_count -= is_stranger(*closed);
    unwatch(closed->watched);
    close(closed->watched.fd);
    if (closed->search)
        closed->search->greeting = nullptr;
    delete closed;
    for (auto room_again : links.room_again) {
        if (links.up && room_again)
            room_again();
    }
}

// A connection that came to nothing; whoever searched with it hears of that.
void give_up(connection* failed) {
    link_search* search = failed->search;
    close_connection(failed);
    if (search)
        search->failed(*search);
}

bool send_on(const connection& out, const void* frame, size_t size) {
    return send(out.watched.fd, frame, size, MSG_NOSIGNAL | MSG_DONTWAIT) >= 0;
}

// --- Peers: sending

// Frame and message stand in one piece: the header in the head room, the number converted in place.
size_t frame_size(const envelope& message) {
    return sizeof(frame_header) + message.size;
}
unsigned char* frame_of(envelope* message) {
    return bytes_of(message) - sizeof(frame_header);
}
size_t cost_of(const envelope& message) {
    return sizeof(envelope) + message.size;
}

void set_header(envelope* message, const frame_header& header) {
    memcpy(frame_of(message), &header, sizeof header);
}

enum class sent { yes, later, never }; // never: with errno

sent try_send(const peer& to, envelope* message) {
    if (send_on(*to.sending, frame_of(message), frame_size(*message)))
        return sent::yes;
    if (errno == EAGAIN || errno == ENOBUFS)
        return sent::later;
    return sent::never;
}

void count_more(peer& of, size_t bytes) {
    of.backlog_bytes += bytes;
    links.backlog_bytes += bytes;
    links.highest_backlog_bytes = std::max(links.highest_backlog_bytes, links.backlog_bytes);
}

// The allocator would keep the memory of many small messages for ever.
void count_less(peer& of, size_t bytes) {
    of.backlog_bytes -= bytes;
    links.backlog_bytes -= bytes;
    if (links.backlog_bytes > 0)
        return;
    if (std::exchange(links.highest_backlog_bytes, 0) > backlog_limit / 4)
        malloc_trim(0);
}

void drop_backlog(peer& of) {
    while (envelope* dropped = of.backlog) {
        of.backlog = dropped->next;
        free_envelope(dropped);
    }
    of.backlog_end = &of.backlog;
    count_less(of, of.backlog_bytes);
}

// What the other side sent before it broke is still to be received; the end is seen behind that. One that has
// not ended by itself is ended here; not every kind of socket keeps what has arrived through that.
void stop_sending(peer& to, int error) {
    to.finishing = true;
    drop_backlog(to);
    if (error != EPIPE && error != ECONNRESET)
        shutdown(to.sending->watched.fd, SHUT_RDWR);
    (void)change_watch(to.sending->watched, EPOLLIN);
}

void flush_backlog(peer& to) {
    while (envelope* next = to.backlog) {
        sent how = try_send(to, next);
        if (how == sent::later)
            return;
        if (how == sent::never) {
            stop_sending(to, errno);
            return;
        }
        to.backlog = next->next;
        count_less(to, cost_of(*next));
        free_envelope(next);
    }
    to.backlog_end = &to.backlog;
    (void)change_watch(to.sending->watched, EPOLLIN);
}

void report_backlog(const peer& of) {
    OKA_ERROR("OKA: Process %u does not read its messages, its connection is closed", of.pid);
}

// Not yet the end of any peer, since the callers hold on to theirs.
void make_room(size_t bytes) {
    while (links.peers && links.backlog_bytes + bytes > backlogs_limit) {
        peer* longest = links.peers;
        for (peer* each = links.peers; each; each = each->next) {
            if (each->backlog_bytes > longest->backlog_bytes)
                longest = each;
        }
        report_backlog(*longest);
        stop_sending(*longest, ENOBUFS);
    }
}

// May be the end of the peer.
void transmit(peer* to, envelope* message) {
    if (to->finishing) {
        free_envelope(message);
        return;
    }
    if (!to->backlog) {
        sent how = try_send(*to, message);
        if (how == sent::never)
            stop_sending(*to, errno);
        if (how != sent::later) {
            free_envelope(message);
            return;
        }
        (void)change_watch(to->sending->watched, EPOLLIN | EPOLLOUT);
    }
    if (to->backlog_bytes + cost_of(*message) > backlog_limit) {
        report_backlog(*to);
        free_envelope(message);
        finish(to);
        return;
    }
    make_room(cost_of(*message));
    if (to->finishing) {
        free_envelope(message);
        return;
    }
    count_more(*to, cost_of(*message));
    message->next = nullptr;
    *to->backlog_end = message;
    to->backlog_end = &message->next;
}

void transmit(peer* to, frame_kind kind, oka_mailbox receiver, oka_mailbox sender) {
    envelope* frame = new_envelope(0);
    set_header(frame, make_header(kind, receiver, sender));
    transmit(to, frame);
}

void send_message(void* handle, envelope* message) {
    auto* to = static_cast<remote_mailbox*>(handle);
    set_header(message, make_header(frame_kind::message, to->id, message->sender));
    message->message.number = htobe32(message->message.number);
    transmit(to->of, message);
}

// --- Peers: their mailboxes

// Null when the peer has more than anyone needs.
remote_mailbox* know_mailbox(peer* of, uint32_t id) {
    if (remote_mailbox* known = of->mailboxes.find(id))
        return known;
    if (of->mailboxes.size() >= mailboxes_per_peer_limit)
        return nullptr;
    auto* fresh = new remote_mailbox{.id = id, .next_in_table = nullptr, .of = of, .known_as = 0};
    of->mailboxes.insert(fresh);
    fresh->known_as = add_remote(send_message, fresh);
    return fresh;
}

// One that is no longer in its peer's table.
void forget_mailbox(remote_mailbox* gone) {
    remove_remote(gone->known_as);
    delete gone;
}

link_search* take_asking(peer& of, uint32_t mailbox) {
    for (link_search** link = &of.asking; *link; link = &(*link)->next_asking) {
        if ((*link)->asked_mailbox != mailbox)
            continue;
        link_search* taken = *link;
        *link = taken->next_asking;
        taken->asked = nullptr;
        return taken;
    }
    return nullptr;
}

// --- Peers: their life

peer* new_peer(connection* first) {
    auto* fresh = new peer;
    fresh->process = first->process;
    fresh->pid = first->pid;
    fresh->sending = first;
    fresh->next = links.peers;
    links.peers = fresh;
    return fresh;
}

bool hung_up(const connection& other) {
    pollfd asked = {.fd = other.watched.fd, .events = POLLRDHUP, .revents = 0};
    return poll(&asked, 1, 0) > 0 && (asked.revents & (POLLRDHUP | POLLHUP | POLLERR));
}

// The peer of that number, unless it has hung up and is only now seen to have: then a new connection with
// this number is the beginning of another life.
peer* find_peer(const process_id& process) {
    for (peer* each = links.peers; each; each = each->next) {
        if (!same(each->process, process))
            continue;
        for (const connection* attached : each->connections) {
            if (attached && hung_up(*attached)) {
                finish(each);
                return nullptr;
            }
        }
        return each;
    }
    return nullptr;
}

bool attach(peer* to, connection* added) {
    for (connection*& slot : to->connections) {
        if (slot)
            continue;
        slot = added;
        links.stranger_count -= is_stranger(*added);
        added->now = stage::attached;
        added->of = to;
        return true;
    }
    return false;
}

// --- Receiving

enum class outcome { handled, nothing, closed, malformed };

outcome handle_hello(connection* from, const greeting_frame& hello) {
    from->process = hello.process;
    from->now = stage::welcomed;
    greeting_frame welcome = {.header = make_header(frame_kind::welcome, OKA_MAILBOX_NONE, from->mailbox),
                              .version_be = htobe32(link_version),
                              .process = links.process};
    return send_on(*from, &welcome, sizeof welcome) ? outcome::handled : outcome::closed;
}

void ask_for(peer* to, link_search* search, uint32_t mailbox) {
    search->asked = to;
    search->asked_mailbox = mailbox;
    search->next_asking = to->asking;
    to->asking = search;
    transmit(to, frame_kind::lookup, mailbox, OKA_MAILBOX_NONE);
}

outcome handle_welcome(connection* from, const greeting_frame& welcome) {
    link_search* search = from->search;
    uint32_t mailbox = be32toh(welcome.header.sender_be);
    from->process = welcome.process;
    if (same(welcome.process, links.process)) {
        // A way round to a mailbox of our own.
        close_connection(from);
        if (is_local(mailbox))
            search->found(*search, mailbox);
        else
            search->failed(*search);
        return outcome::handled;
    }
    peer* to = find_peer(welcome.process);
    if (to && to->pid != from->pid)
        return outcome::malformed;
    if (to) {
        close_connection(from);
    } else {
        frame_header frame = make_header(frame_kind::attach, OKA_MAILBOX_NONE, OKA_MAILBOX_NONE);
        if (!send_on(*from, &frame, sizeof frame))
            return outcome::closed;
        from->search = nullptr;
        search->greeting = nullptr;
        to = new_peer(from);
        (void)attach(to, from);
    }
    ask_for(to, search, mailbox);
    return outcome::handled;
}

outcome handle_attach(connection* from) {
    peer* to = find_peer(from->process);
    if (same(from->process, links.process) || (to && to->pid != from->pid))
        return outcome::malformed;
    if (!to)
        to = new_peer(from);
    return attach(to, from) ? outcome::handled : outcome::malformed;
}

outcome handle_found(peer* of, uint32_t id) {
    while (link_search* search = take_asking(*of, id)) {
        const remote_mailbox* found = know_mailbox(of, id);
        if (!found)
            return outcome::malformed;
        search->found(*search, found->known_as);
    }
    return outcome::handled;
}

outcome handle_gone(peer* of, uint32_t id) {
    if (remote_mailbox* gone = of->mailboxes.find(id)) {
        of->mailboxes.remove(gone);
        forget_mailbox(gone);
    }
    while (link_search* search = take_asking(*of, id))
        search->failed(*search);
    return outcome::handled;
}

outcome handle_message(peer* of, const frame_header& header, size_t size) {
    oka_mailbox sender = be32toh(header.sender_be);
    if (sender != OKA_MAILBOX_NONE) {
        const remote_mailbox* known = know_mailbox(of, sender);
        if (!known)
            return outcome::malformed;
        sender = known->known_as;
    }
    envelope* message = new_envelope(static_cast<uint32_t>(size));
    memcpy(bytes_of(message), links.received + sizeof header, size);
    message->message.number = size >= sizeof(oka_message) ? be32toh(message->message.number) : 0;
    message->sender = sender;
    message->receiver = be32toh(header.receiver_be);
    deliver(message);
    return outcome::handled;
}

outcome handle_attached(connection* from, const frame_header& header, size_t size) {
    auto kind = static_cast<frame_kind>(be32toh(header.kind_be));
    if (kind == frame_kind::message)
        return handle_message(from->of, header, size - sizeof header);
    if (size != sizeof header)
        return outcome::malformed;
    oka_mailbox receiver = be32toh(header.receiver_be);
    oka_mailbox sender = be32toh(header.sender_be);
    if (kind == frame_kind::found)
        return handle_found(from->of, sender);
    if (kind == frame_kind::gone)
        return handle_gone(from->of, sender);
    if (kind != frame_kind::lookup)
        return outcome::malformed;
    transmit(from->of, is_local(receiver) ? frame_kind::found : frame_kind::gone, OKA_MAILBOX_NONE, receiver);
    return outcome::handled;
}

outcome handle_frame(connection* from, size_t size) {
    if (size < sizeof(frame_header) || size > largest_frame)
        return outcome::malformed;
    frame_header header;
    memcpy(&header, links.received, sizeof header);
    auto kind = static_cast<frame_kind>(be32toh(header.kind_be));
    greeting_frame greeting = {};
    bool is_greeting = size == sizeof greeting;
    if (is_greeting)
        memcpy(&greeting, links.received, sizeof greeting);
    if (is_greeting && from->now != stage::attached && be32toh(greeting.version_be) != link_version) {
        OKA_ERROR("OKA: Process %u speaks version %u of the links' protocol, not %u", from->pid,
                  be32toh(greeting.version_be), link_version);
        return outcome::closed;
    }
    switch (from->now) {
    case stage::greeting:
        return is_greeting && kind == frame_kind::welcome ? handle_welcome(from, greeting)
                                                          : outcome::malformed;
    case stage::accepted:
        return is_greeting && kind == frame_kind::hello ? handle_hello(from, greeting) : outcome::malformed;
    case stage::welcomed:
        return size == sizeof header && kind == frame_kind::attach ? handle_attach(from) : outcome::malformed;
    case stage::attached:
        return handle_attached(from, header, size);
    }
    return outcome::malformed;
}

ssize_t receive_bytes(const connection& from) {
    ssize_t size;
    do {
        size = recv(from.watched.fd, links.received, sizeof links.received, MSG_DONTWAIT | MSG_TRUNC);
    } while (size < 0 && errno == EINTR);
    return size;
}

// One frame. After `handled` the connection may be gone.
outcome receive_frame(connection* from) {
    // An error says that the other side left without reading everything, once or for ever as the kind of
    // socket has it. What it sent comes after it.
    ssize_t size = receive_bytes(*from);
    if (size < 0 && errno == ECONNRESET)
        size = receive_bytes(*from);
    if (size == 0)
        return outcome::closed;
    if (size < 0)
        return errno == EAGAIN ? outcome::nothing : outcome::closed;
    auto length = static_cast<size_t>(size);
    outcome result = handle_frame(from, length);
    explicit_bzero(links.received, length < sizeof links.received ? length : sizeof links.received);
    return result;
}

void ready(void* context, uint32_t events) {
    auto* from = static_cast<connection*>(context);
    if ((events & EPOLLOUT) && from->of && from->of->sending == from)
        flush_backlog(*from->of);
    if (!(events & ~static_cast<uint32_t>(EPOLLOUT)))
        return;
    outcome result = receive_frame(from);
    if (result == outcome::handled || result == outcome::nothing)
        return;
    if (result == outcome::malformed)
        OKA_ERROR("OKA: Process %u sent what is no message, its connection is closed", from->pid);
    if (from->of)
        finish(from->of);
    else
        give_up(from);
}

// What the peer sent before its end is received first: on every connection, since its messages may be on
// another one than the one that ended. Not every kind of socket keeps what has arrived through the shutdown,
// so most of it is received before; nothing can be added after it, so that comes to an end.
void receive_the_rest(connection* from) {
    for (int frames = 0; frames < rest_limit && receive_frame(from) == outcome::handled; ++frames) {
    }
    shutdown(from->watched.fd, SHUT_RDWR);
    while (receive_frame(from) == outcome::handled) {
    }
}

void finish(peer* gone) {
    peer** link = &links.peers;
    while (*link && *link != gone)
        link = &(*link)->next;
    if (!*link)
        return; // it is being finished
    *link = gone->next;
    gone->finishing = true;
    drop_backlog(*gone);
    for (connection*& slot : gone->connections) {
        if (!slot)
            continue;
        receive_the_rest(slot);
        slot->of = nullptr;
        close_connection(slot);
        slot = nullptr;
    }
    while (remote_mailbox* mailbox = gone->mailboxes.take_any())
        forget_mailbox(mailbox);
    while (link_search* search = gone->asking) {
        gone->asking = search->next_asking;
        search->asked = nullptr;
        search->failed(*search);
    }
    delete gone;
}

connection* new_connection(int fd, uint32_t pid, stage now) {
    auto* fresh = new connection;
    fresh->watched = {.fd = fd, .ready = ready, .context = fresh};
    if (!watch(fresh->watched, EPOLLIN)) {
        OKA_ERROR("OKA: A connection cannot be watched: %s", strerror(errno));
        close(fd);
        delete fresh;
        return nullptr;
    }
    fresh->now = now;
    fresh->pid = pid;
    fresh->next = links.connections;
    links.connections = fresh;
    ++links.connection_count;
    links.stranger_count += is_stranger(*fresh);
    return fresh;
}

size_t connections_of(uint32_t pid) {
    size_t count = 0;
    for (const connection* each = links.connections; each; each = each->next)
        count += each->pid == pid;
    return count;
}

void close_oldest_stranger() {
    connection* oldest = nullptr;
    for (connection* each = links.connections; each; each = each->next) {
        if (is_stranger(*each))
            oldest = each;
    }
    if (oldest)
        close_connection(oldest);
}

} // namespace

bool start_links(void (*room_again)()) {
    *std::find(links.room_again, links.room_again + transports_at_once - 1, nullptr) = room_again;
    if (links.up)
        return true;
    if (getrandom(&links.process, sizeof links.process, 0) != sizeof links.process)
        return false;
    links.up = true;
    return true;
}

void stop_links() {
    links.up = false;
    std::fill(std::begin(links.room_again), std::end(links.room_again), nullptr);
    while (peer* last = links.peers) {
        if (!last->finishing)
            flush_backlog(*last);
        finish(last);
    }
    while (links.connections)
        give_up(links.connections);
}

bool room_for_link() {
    return links.connection_count < connections_limit;
}

void accept_link(int fd, uint32_t pid, oka_mailbox mailbox) {
    if (pid != 0 && connections_of(pid) >= connections_per_process_limit) {
        OKA_ERROR("OKA: Process %u has %zu connections and gets no more", pid, connections_per_process_limit);
        close(fd);
        return;
    }
    if (links.stranger_count >= strangers_limit)
        close_oldest_stranger();
    connection* fresh = new_connection(fd, pid, stage::accepted);
    if (!fresh)
        return;
    fresh->mailbox = mailbox;
    // Whoever means well has said hello before it was accepted, and so never is the oldest stranger.
    ready(fresh, EPOLLIN);
}

void begin_link(link_search& search, int fd, uint32_t pid) {
    connection* fresh = new_connection(fd, pid, stage::greeting);
    if (!fresh) {
        search.failed(search);
        return;
    }
    fresh->search = &search;
    search.greeting = fresh;
    greeting_frame hello = {.header = make_header(frame_kind::hello, OKA_MAILBOX_NONE, OKA_MAILBOX_NONE),
                            .version_be = htobe32(link_version),
                            .process = links.process};
    if (!send_on(*fresh, &hello, sizeof hello))
        give_up(fresh);
}

void cancel_link(link_search& search) {
    if (search.greeting) {
        close_connection(search.greeting);
        search.greeting = nullptr;
    }
    if (search.asked) {
        link_search** link = &search.asked->asking;
        while (*link != &search)
            link = &(*link)->next_asking;
        *link = search.next_asking;
        search.asked = nullptr;
    }
}

void tell_gone(oka_mailbox mailbox) {
    for (peer* each = links.peers; each;) {
        peer* next = each->next;
        transmit(each, frame_kind::gone, OKA_MAILBOX_NONE, mailbox);
        each = next;
    }
}

} // namespace oka
