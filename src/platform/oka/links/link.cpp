#include "platform/oka/links/link.h"

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sys/epoll.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

#include "platform/oka/core/id_table.h"
#include "platform/oka/core/oka_trace.h"
#include "platform/oka/links/connection.h"
#include "platform/oka/links/family.h"
#include "platform/oka/links/group.h"
#include "platform/oka/links/link_frames.h"
#include "platform/oka/links/outbox.h"

namespace oka {

namespace {

constexpr size_t connections_limit = 512;
// One process must not be able to use up all connections. A well-behaved one needs two.
constexpr size_t connections_per_process_limit = 128;
// From connecting to attaching. A machine that is gone is noticed sooner, by the end of its TIPC link.
constexpr uint64_t greeting_ms = 5'000;
constexpr size_t mailboxes_per_peer_limit = 256;
// Frames that a peer at its end may still have sent: more than TIPC lets wait on a connection.
constexpr int drained_frames_limit = 1024;
// One that we attached and one that the other side did.
constexpr size_t connections_per_peer = 2;

struct remote_mailbox {
    uint32_t id; // as its own process knows it
    remote_mailbox* next_in_table;
    peer* of;
    oka_mailbox known_as;
};

} // namespace

struct peer {
    peer* next = nullptr;
    process_id process = {};
    uint32_t pid = 0;
    connection* connections[connections_per_peer] = {};
    const family* over = nullptr;
    outbox out; // sends on the first of them
    id_table<remote_mailbox, 32> mailboxes;
    std::vector<oka_mailbox> spoken; // those of this process that have sent it something; between hosts
    link_search* asking = nullptr;
};

namespace {

struct {
    bool up = false;
    process_id process;
    peer* peers = nullptr;
    unsigned char received[largest_frame + 1]; // one that is too large shows by its size
} links;

bool same(const process_id& one, const process_id& other) {
    return !memcmp(&one, &other, sizeof one);
}

void finish(peer* gone);

// A connection that came to nothing.
void give_up(connection* failed) {
    link_search* search = failed->search;
    close_connection(failed);
    if (search)
        search->failed(*search);
}

// --- Peers: sending

void post_frame(peer& to, frame_kind kind, oka_mailbox receiver, oka_mailbox sender) {
    post(to.out, make_header(kind, receiver, sender), new_envelope(0));
}

bool has_spoken(const peer& to, oka_mailbox mailbox) {
    return std::find(to.spoken.begin(), to.spoken.end(), mailbox) != to.spoken.end();
}

void send_message(void* handle, envelope* message) {
    auto* to = static_cast<remote_mailbox*>(handle);
    if (to->of->over->between_hosts && !has_spoken(*to->of, message->sender))
        to->of->spoken.push_back(message->sender);
    frame_header header = make_header(frame_kind::message, to->id, message->sender);
    message->message.number = htobe32(message->message.number);
    post(to->of->out, header, message);
}

// --- Peers: their mailboxes

// Null when the peer has too many.
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

// --- Peers: beginning and attaching

peer* new_peer(connection* first) {
    auto* fresh = new peer;
    fresh->process = first->process;
    fresh->over = first->over;
    fresh->pid = first->pid;
    fresh->next = links.peers;
    links.peers = fresh;
    open_outbox(fresh->out, first->watched, first->pid);
    return fresh;
}

// The peer with that number. If it has hung up, which is noticed only now, it is finished, and a connection
// with the same number begins a new incarnation.
peer* find_peer(const process_id& process) {
    for (peer* each = links.peers; each; each = each->next) {
        if (!same(each->process, process))
            continue;
        for (const connection* attached : each->connections) {
            if (attached && has_hung_up(*attached)) {
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
        change_stage(*added, stage::attached);
        added->of = to;
        return true;
    }
    return false;
}

// --- Receiving

enum class outcome { handled, nothing, closed, malformed };

// --- Greeting

greeting_frame make_greeting(frame_kind kind, const connection& on) {
    greeting_frame made = {.header = make_header(kind, OKA_MAILBOX_NONE, on.mailbox),
                           .version_be = htobe32(link_version),
                           .process = links.process,
                           .challenge = on.challenge,
                           .proven = {},
                           .unit = {}};
    snprintf(made.unit, sizeof made.unit, "%s", own_unit());
    return made;
}

uint64_t address_of(const connection& on, bool other) {
    return on.over->socket_address ? on.over->socket_address(on.watched.fd, other) : 0;
}

greeting_end own_end(const connection& on) {
    return {&links.process, &on.challenge, own_unit(), address_of(on, false)};
}

greeting_end other_end(const connection& on, const greeting_frame& said) {
    return {&said.process, &said.challenge, said.unit, address_of(on, true)};
}

proof prove(const connection& on, prover by, const greeting_facts& facts) {
    return on.over->between_hosts ? make_proof(by, facts) : proof{};
}

bool is_proven(const connection& on, const proof& given, const proof& expected) {
    if (is_proof(given, expected))
        return true;
    OKA_ERROR(
        "OKA: Machine %x does not prove that it is of this node's group: it is refused; is OKA_TIPC_SECRET "
        "the same at both ends?",
        on.pid);
    return false;
}

outcome handle_hello(connection* from, const greeting_frame& hello) {
    if (!is_allowed_unit(hello.unit))
        return outcome::closed;
    from->process = hello.process;
    change_stage(*from, stage::welcomed);
    const greeting_facts facts = {other_end(*from, hello), own_end(*from), from->mailbox};
    from->expected = prove(*from, prover::connector, facts);
    greeting_frame welcome = make_greeting(frame_kind::welcome, *from);
    welcome.proven = prove(*from, prover::acceptor, facts);
    return send_packet(*from, &welcome, sizeof welcome) ? outcome::handled : outcome::closed;
}

void ask_for(peer* to, link_search* search, uint32_t mailbox) {
    search->asked = to;
    search->asked_mailbox = mailbox;
    search->next_asking = to->asking;
    to->asking = search;
    post_frame(*to, frame_kind::lookup, mailbox, OKA_MAILBOX_NONE);
}

outcome handle_welcome(connection* from, const greeting_frame& welcome) {
    link_search* search = from->search;
    uint32_t mailbox = be32toh(welcome.header.sender_be);
    const greeting_facts facts = {own_end(*from), other_end(*from, welcome), mailbox};
    if (!is_allowed_unit(welcome.unit) ||
        !is_proven(*from, welcome.proven, prove(*from, prover::acceptor, facts)))
        return outcome::closed;
    from->process = welcome.process;
    if (same(welcome.process, links.process)) {
        // The socket leads to this process itself.
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
        const attach_frame frame = {make_header(frame_kind::attach, OKA_MAILBOX_NONE, OKA_MAILBOX_NONE),
                                    prove(*from, prover::connector, facts)};
        if (!send_packet(*from, &frame, sizeof frame))
            return outcome::closed;
        from->search = nullptr;
        search->greeting = nullptr;
        to = new_peer(from);
        (void)attach(to, from);
    }
    ask_for(to, search, mailbox);
    return outcome::handled;
}

outcome handle_attach(connection* from, const attach_frame& frame) {
    if (!is_proven(*from, frame.proven, from->expected))
        return outcome::closed;
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
        if (!found) {
            search->failed(*search);
            return outcome::malformed;
        }
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

// Another unit reaches what is offered to it, and gets and gives answers.
bool may_receive(const peer& of, oka_mailbox receiver) {
    mailbox_address offered = {};
    return !of.over->between_hosts || has_spoken(of, receiver) ||
           (of.over->find_offered && of.over->find_offered(receiver, offered));
}

outcome handle_message(peer* of, const frame_header& header, size_t size) {
    if (!may_receive(*of, be32toh(header.receiver_be))) {
        OKA_ERROR("OKA: Machine %x sends to a mailbox that is not offered to other units; dropped", of->pid);
        return outcome::handled;
    }
    // Who cannot be answered cannot be told from others.
    const uint32_t sender = be32toh(header.sender_be);
    const remote_mailbox* known = sender == OKA_MAILBOX_NONE ? nullptr : know_mailbox(of, sender);
    if (!known)
        return outcome::malformed;
    envelope* message = new_envelope(static_cast<uint32_t>(size));
    memcpy(bytes_of(message), links.received + sizeof header, size);
    message->message.number = size >= sizeof(oka_message) ? be32toh(message->message.number) : 0;
    message->sender = known->known_as;
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
    post_frame(*from->of, is_local(receiver) ? frame_kind::found : frame_kind::gone, OKA_MAILBOX_NONE,
               receiver);
    return outcome::handled;
}

outcome handle_arrival(connection* from, size_t size) {
    if (!from->over->admits(from->mailbox, from->pid, links.received, size))
        return outcome::closed;
    change_stage(*from, stage::accepted);
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
    if (is_greeting && !memchr(greeting.unit, 0, sizeof greeting.unit))
        return outcome::malformed;
    if (is_greeting && from->now != stage::attached && be32toh(greeting.version_be) != link_version) {
        OKA_ERROR("OKA: Process %u speaks version %u of the links' protocol, not %u", from->pid,
                  be32toh(greeting.version_be), link_version);
        return outcome::closed;
    }
    switch (from->now) {
    case stage::connecting:
    case stage::arrived:
        break;
    case stage::greeting:
        return is_greeting && kind == frame_kind::welcome ? handle_welcome(from, greeting)
                                                          : outcome::malformed;
    case stage::accepted:
        return is_greeting && kind == frame_kind::hello ? handle_hello(from, greeting) : outcome::malformed;
    case stage::welcomed:
        return size == sizeof(attach_frame) && kind == frame_kind::attach
                   ? handle_attach(from, *reinterpret_cast<const attach_frame*>(links.received))
                   : outcome::malformed;
    case stage::attached:
        return handle_attached(from, header, size);
    }
    return outcome::malformed;
}

// One packet. After `handled` the connection may be gone.
outcome receive_frame(connection* from) {
    // An error says that the other side left without reading everything, once or for ever as the kind of
    // socket has it. What it sent comes after it.
    ssize_t size = receive_packet(*from, links.received, sizeof links.received);
    if (size < 0 && errno == ECONNRESET)
        size = receive_packet(*from, links.received, sizeof links.received);
    if (size == 0)
        return outcome::closed;
    if (size < 0)
        return errno == EAGAIN ? outcome::nothing : outcome::closed;
    auto length = static_cast<size_t>(size);
    outcome result = from->now == stage::arrived ? handle_arrival(from, length) : handle_frame(from, length);
    explicit_bzero(links.received, length < sizeof links.received ? length : sizeof links.received);
    return result;
}

void greet(connection* to) {
    link_search& search = *to->search;
    const greeting_frame hello = make_greeting(frame_kind::hello, *to);
    if ((search.introduce && !search.introduce(search, to->watched.fd)) ||
        !send_packet(*to, &hello, sizeof hello))
        give_up(to);
}

// Connected, or not.
void handle_connected(connection* to, uint32_t events) {
    int error = 0;
    socklen_t size = sizeof error;
    (void)getsockopt(to->watched.fd, SOL_SOCKET, SO_ERROR, &error, &size);
    if (error || (events & (EPOLLERR | EPOLLHUP)) || !change_watch(to->watched, EPOLLIN)) {
        give_up(to);
        return;
    }
    change_stage(*to, stage::greeting);
    greet(to);
}

void receive(connection* from) {
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

void ready(void* context, uint32_t events) {
    auto* of = static_cast<connection*>(context);
    if (of->now == stage::connecting) {
        handle_connected(of, events);
        return;
    }
    if ((events & EPOLLOUT) && of->of && of->of->out.to == &of->watched)
        flush(of->of->out);
    if (events & ~static_cast<uint32_t>(EPOLLOUT))
        receive(of);
}

// Receives what the peer sent before its end, on each of its connections, since messages may wait on another
// one than the one that ended. After the shutdown nothing more can arrive, so the second loop ends. Some
// kinds of socket drop at the shutdown what has arrived, so the first loop receives as much as may be
// waiting.
void drain(connection* from) {
    for (int frames = 0; frames < drained_frames_limit && receive_frame(from) == outcome::handled; ++frames) {
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
    close_outbox(gone->out);
    for (connection*& slot : gone->connections) {
        if (!slot)
            continue;
        drain(slot);
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

void stop_greeting(void* context) {
    auto* idle = static_cast<connection*>(context);
    idle->deadline = 0;
    OKA_ERROR("OKA: Process %u does not end its greeting within %u ms, its connection is closed", idle->pid,
              static_cast<unsigned>(greeting_ms));
    give_up(idle);
}

// Draws the number that the other end is to answer. False when the connection had to be closed.
bool start_greeting(connection* fresh) {
    fresh->deadline = call_later(greeting_ms, stop_greeting, fresh);
    if (getrandom(&fresh->challenge, sizeof fresh->challenge, 0) == sizeof fresh->challenge)
        return true;
    close_connection(fresh);
    return false;
}

} // namespace

bool start_links(void (*room_again)()) {
    set_connection_closed(room_again);
    if (links.up)
        return true;
    links.up = getrandom(&links.process, sizeof links.process, 0) == sizeof links.process;
    return links.up;
}

void stop_links() {
    links.up = false;
    set_connection_closed(nullptr);
    while (peer* last = links.peers) {
        flush(last->out);
        finish(last);
    }
    while (connection* left = any_connection())
        give_up(left);
}

bool room_for_link() {
    return count_connections() < connections_limit;
}

void accept_link(const family& over, int fd, uint32_t pid, oka_mailbox mailbox) {
    if (pid != 0 && count_connections_of(pid) >= connections_per_process_limit) {
        OKA_ERROR("OKA: Process %u has %zu connections and gets no more", pid, connections_per_process_limit);
        close(fd);
        return;
    }
    limit_half_open(pid);
    connection* fresh = open_connection(over, fd, pid, over.admits ? stage::arrived : stage::accepted, ready);
    if (!fresh || !start_greeting(fresh))
        return;
    fresh->mailbox = mailbox;
    // A well-behaved process has sent its hello before it is accepted. Reading it at once keeps the
    // connection from being closed as the oldest half-open one.
    receive(fresh);
}

void begin_link(const family& over, link_search& search, int fd, uint32_t pid, bool connected) {
    connection* fresh =
        open_connection(over, fd, pid, connected ? stage::greeting : stage::connecting, ready);
    if (!fresh || !start_greeting(fresh)) {
        search.failed(search);
        return;
    }
    fresh->search = &search;
    search.greeting = fresh;
    if (connected)
        greet(fresh);
}

void cancel_link(link_search& search) {
    if (search.greeting)
        close_connection(search.greeting);
    if (!search.asked)
        return;
    link_search** link = &search.asked->asking;
    while (*link != &search)
        link = &(*link)->next_asking;
    *link = search.next_asking;
    search.asked = nullptr;
}

void tell_gone(oka_mailbox mailbox) {
    for (peer* each = links.peers; each; each = each->next) {
        post_frame(*each, frame_kind::gone, OKA_MAILBOX_NONE, mailbox);
        std::erase(each->spoken, mailbox);
    }
}

} // namespace oka
