#include "platform/oka/links/outbox.h"

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <cstring>
#include <malloc.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <utility>

#include "platform/oka/core/oka_trace.h"

namespace oka {

namespace {

// What a peer that does not read may cost, in bytes that wait for it here, beside what the kernel holds.
constexpr size_t backlog_limit = size_t{1} << 20;
// And all such peers together; above that, the peer with the most is cut off.
constexpr size_t backlogs_limit = size_t{4} << 20;

struct {
    outbox* all = nullptr;
    size_t bytes = 0;         // of all of them
    size_t highest_bytes = 0; // since the last time that there were none
} outboxes;

// Frame and message stand in one piece: the header in the head room, the number converted in place.
unsigned char* frame_of(envelope* message) {
    return bytes_of(message) - sizeof(frame_header);
}
size_t cost_of(const envelope& message) {
    return sizeof(envelope) + message.size;
}

enum class sent { yes, later, never }; // never: with errno

sent try_send(const outbox& out, envelope* message) {
    if (send(out.to->fd, frame_of(message), sizeof(frame_header) + message->size,
             MSG_NOSIGNAL | MSG_DONTWAIT) >= 0)
        return sent::yes;
    return errno == EAGAIN || errno == ENOBUFS ? sent::later : sent::never;
}

void count_more(outbox& out, size_t bytes) {
    out.bytes += bytes;
    outboxes.bytes += bytes;
    outboxes.highest_bytes = std::max(outboxes.highest_bytes, outboxes.bytes);
}

// Without the trim the allocator would keep the memory of many small messages for ever.
void count_less(outbox& out, size_t bytes) {
    assert(out.bytes >= bytes && outboxes.bytes >= bytes);
    out.bytes -= bytes;
    outboxes.bytes -= bytes;
    if (outboxes.bytes == 0 && std::exchange(outboxes.highest_bytes, 0) > backlog_limit / 4)
        malloc_trim(0);
}

void drop_waiting(outbox& out) {
    while (envelope* dropped = out.waiting) {
        out.waiting = dropped->next;
        free_envelope(dropped);
    }
    out.end = &out.waiting;
    count_less(out, out.bytes);
}

// What the other side sent before is still received, and then the end of the connection is seen. If the other
// side has not ended it, it is ended here, though some kinds of socket then drop what has arrived.
void stop_sending(outbox& out, int error) {
    out.closed = true;
    drop_waiting(out);
    if (error != EPIPE && error != ECONNRESET)
        shutdown(out.to->fd, SHUT_RDWR);
    (void)change_watch(*out.to, EPOLLIN);
}

void cut_off(outbox& out) {
    OKA_ERROR("OKA: Process %u does not read its messages, its connection is closed", out.pid);
    stop_sending(out, ENOBUFS);
}

void make_room(outbox& out, size_t bytes) {
    if (out.bytes + bytes > backlog_limit)
        cut_off(out);
    while (outboxes.bytes + bytes > backlogs_limit) {
        outbox* longest = outboxes.all;
        for (outbox* each = longest; each; each = each->next)
            longest = each->bytes > longest->bytes ? each : longest;
        assert(longest);
        cut_off(*longest);
    }
}

void keep(outbox& out, envelope* message) {
    message->next = nullptr;
    *out.end = message;
    out.end = &message->next;
    count_more(out, cost_of(*message));
}

} // namespace

void open_outbox(outbox& opened, descriptor& to, uint32_t pid) {
    opened.to = &to;
    opened.pid = pid;
    opened.next = outboxes.all;
    outboxes.all = &opened;
}

void close_outbox(outbox& closed) {
    closed.closed = true;
    drop_waiting(closed);
    outbox** link = &outboxes.all;
    while (*link != &closed)
        link = &(*link)->next;
    *link = closed.next;
}

void post(outbox& out, const frame_header& header, envelope* message) {
    memcpy(frame_of(message), &header, sizeof header);
    if (!out.closed && !out.waiting) {
        sent how = try_send(out, message);
        if (how == sent::yes) {
            free_envelope(message);
            return;
        }
        if (how == sent::never)
            stop_sending(out, errno);
        else
            (void)change_watch(*out.to, EPOLLIN | EPOLLOUT);
    }
    if (!out.closed)
        make_room(out, cost_of(*message));
    if (out.closed)
        free_envelope(message);
    else
        keep(out, message);
}

void flush(outbox& out) {
    while (envelope* next = out.waiting) {
        sent how = try_send(out, next);
        if (how == sent::later)
            return;
        if (how == sent::never) {
            stop_sending(out, errno);
            return;
        }
        out.waiting = next->next;
        count_less(out, cost_of(*next));
        free_envelope(next);
    }
    out.end = &out.waiting;
    if (!out.closed)
        (void)change_watch(*out.to, EPOLLIN);
}

} // namespace oka
