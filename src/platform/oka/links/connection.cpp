#include "platform/oka/links/connection.h"

#include <cassert>
#include <cerrno>
#include <cstring>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

#include "platform/oka/core/oka_trace.h"

namespace oka {

namespace {

// The oldest makes room for the next.
constexpr size_t half_open_limit = 64;
constexpr size_t half_open_limit_of_process = 16;

struct {
    connection* all = nullptr; // the newest first
    size_t count = 0;
    size_t half_open_count = 0;
    void (*closed)() = nullptr;
} connections;

bool is_half_open(stage now) {
    return now == stage::arrived || now == stage::accepted || now == stage::welcomed;
}

} // namespace

void set_connection_closed(void (*closed)()) {
    connections.closed = closed;
}

connection* open_connection(const family& over, int fd, uint32_t pid, stage now,
                            void (*ready)(void* context, uint32_t events)) {
    auto* fresh = new connection;
    fresh->over = &over;
    fresh->watched = {.fd = fd, .ready = ready, .context = fresh};
    if (!watch(fresh->watched, now == stage::connecting ? EPOLLOUT : EPOLLIN)) {
        OKA_ERROR("OKA: A connection cannot be watched: %s", strerror(errno));
        close(fd);
        delete fresh;
        return nullptr;
    }
    fresh->now = now;
    fresh->pid = pid;
    fresh->next = connections.all;
    connections.all = fresh;
    ++connections.count;
    connections.half_open_count += is_half_open(now);
    return fresh;
}

void close_connection(connection* closed) {
    connection** link = &connections.all;
    while (*link != closed)
        link = &(*link)->next;
    *link = closed->next;
    --connections.count;
    connections.half_open_count -= is_half_open(closed->now);
    cancel_call(closed->deadline);
    unwatch(closed->watched);
    close(closed->watched.fd);
    if (closed->search)
        closed->search->greeting = nullptr;
    delete closed;
    if (connections.closed)
        connections.closed();
}

void change_stage(connection& of, stage next) {
    assert(of.now != stage::attached);
    connections.half_open_count -= is_half_open(of.now);
    connections.half_open_count += is_half_open(next);
    of.now = next;
    if (next == stage::attached)
        cancel_call(std::exchange(of.deadline, 0));
}

connection* any_connection() {
    return connections.all;
}

size_t count_connections() {
    return connections.count;
}

size_t count_connections_of(uint32_t pid) {
    size_t count = 0;
    for (const connection* each = connections.all; each; each = each->next)
        count += each->pid == pid;
    return count;
}

void limit_half_open(uint32_t pid) {
    connection *oldest = nullptr, *oldest_of_pid = nullptr;
    size_t count_of_pid = 0;
    for (connection* each = connections.all; each; each = each->next) {
        if (!is_half_open(each->now))
            continue;
        oldest = each;
        if (each->pid != pid)
            continue;
        oldest_of_pid = each;
        ++count_of_pid;
    }
    if (count_of_pid >= half_open_limit_of_process)
        oldest = oldest_of_pid;
    else if (connections.half_open_count < half_open_limit)
        oldest = nullptr;
    if (oldest)
        close_connection(oldest);
}

ssize_t receive_packet(const connection& from, void* buffer, size_t size) {
    ssize_t received;
    do
        received = recv(from.watched.fd, buffer, size, MSG_DONTWAIT | MSG_TRUNC);
    while (received < 0 && errno == EINTR);
    return received;
}

bool send_packet(const connection& to, const void* packet, size_t size) {
    return send(to.watched.fd, packet, size, MSG_NOSIGNAL | MSG_DONTWAIT) >= 0;
}

bool has_hung_up(const connection& other) {
    pollfd asked = {.fd = other.watched.fd, .events = POLLRDHUP, .revents = 0};
    return poll(&asked, 1, 0) > 0 && (asked.revents & (POLLRDHUP | POLLHUP | POLLERR));
}

} // namespace oka
