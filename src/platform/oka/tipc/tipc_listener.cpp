#include "platform/oka/tipc/tipc_listener.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "platform/oka/core/descriptors.h"
#include "platform/oka/core/oka_trace.h"
#include "platform/oka/links/link.h"
#include "platform/oka/tipc/tipc_address.h"
#include "platform/oka/tipc/tipc_search.h"

namespace oka {

namespace {

// Accepting failed for want of descriptors or memory.
constexpr uint64_t accept_pause_ms = 1'000;
constexpr int waiting_connections = 128;
// Connections that have not said whom they are for; the oldest makes room for the next.
constexpr size_t doorstep_limit = 64;

struct listener {
    listener* next;
    descriptor watched;
    oka_mailbox mailbox;
    wanted_packet wanted;
    char name[OKA_MAILBOX_NAME_SIZE];
};

// A connection until its first packet is there.
struct arrival {
    arrival* next;
    descriptor watched;
    oka_mailbox mailbox;
};

struct {
    char unit[OKA_UNIT_PATH_SIZE] = {};
    listener* all = nullptr;
    arrival* doorstep = nullptr; // the newest first
    size_t on_doorstep = 0;
    bool accepting = true;
    uint32_t accept_timer = 0;
} services;

listener* find_listener(oka_mailbox mailbox) {
    listener* each = services.all;
    while (each && each->mailbox != mailbox)
        each = each->next;
    return each;
}

void set_accepting(bool accepting) {
    services.accepting = accepting;
    for (listener* each = services.all; each; each = each->next)
        (void)change_watch(each->watched, accepting ? static_cast<uint32_t>(EPOLLIN) : 0u);
}

void accept_after_pause(void*) {
    services.accept_timer = 0;
    set_accepting(true);
}

// --- The doorstep

// Returns the descriptor, which is no longer watched.
int leave_doorstep(arrival* left) {
    arrival** link = &services.doorstep;
    while (*link != left)
        link = &(*link)->next;
    *link = left->next;
    --services.on_doorstep;
    int fd = left->watched.fd;
    unwatch(left->watched);
    delete left;
    return fd;
}

void turn_away_oldest() {
    arrival* oldest = services.doorstep;
    while (oldest && oldest->next)
        oldest = oldest->next;
    if (oldest)
        close(leave_doorstep(oldest));
}

void hear_wanted(void* context, uint32_t) {
    auto* from = static_cast<arrival*>(context);
    unsigned char bytes[sizeof(wanted_packet)];
    ssize_t size = recv(from->watched.fd, bytes, sizeof bytes, MSG_DONTWAIT);
    if (size < 0 && (errno == EAGAIN || errno == EINTR))
        return;
    oka_mailbox mailbox = from->mailbox;
    int fd = leave_doorstep(from);
    uint32_t node = other_node(fd);
    const listener* at = find_listener(mailbox);
    if (size > 0 && at && is_wanted(at->wanted, bytes, static_cast<size_t>(size))) {
        accept_link(fd, node, mailbox);
        return;
    }
    if (size > 0 && at)
        OKA_ERROR("OKA: Node %x wants another mailbox than '%s/%s', at the same TIPC address: it is refused",
                  node, services.unit, at->name);
    close(fd);
}

void accept_one(void* context, uint32_t) {
    const auto* at = static_cast<listener*>(context);
    if (!room_for_link()) {
        set_accepting(false);
        return;
    }
    int fd = accept4(at->watched.fd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd < 0) {
        if (errno == EAGAIN || errno == EINTR || errno == ECONNABORTED)
            return;
        OKA_ERROR("OKA: Connections cannot be accepted: %s", strerror(errno));
        set_accepting(false);
        if (!services.accept_timer)
            services.accept_timer = call_later(accept_pause_ms, accept_after_pause, nullptr);
        return;
    }
    if (services.on_doorstep >= doorstep_limit)
        turn_away_oldest();
    auto* fresh = new arrival{.next = services.doorstep, .watched = {}, .mailbox = at->mailbox};
    fresh->watched = {.fd = fd, .ready = hear_wanted, .context = fresh};
    if (!watch(fresh->watched, EPOLLIN)) {
        close(fd);
        delete fresh;
        return;
    }
    services.doorstep = fresh;
    ++services.on_doorstep;
    // Whoever means well has named the mailbox before it was accepted.
    hear_wanted(fresh, EPOLLIN);
}

// --- Publishing

bool bind_service(int fd, const tipc_service_addr& service) {
    sockaddr_tipc address = {};
    address.family = AF_TIPC;
    address.addrtype = TIPC_SERVICE_RANGE;
    address.scope = TIPC_CLUSTER_SCOPE;
    address.addr.nameseq = {.type = service.type, .lower = service.instance, .upper = service.instance};
    // Whoever searches connects the moment it is published.
    return listen(fd, waiting_connections) == 0 &&
           bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

// The descriptor of the listening socket, or -1 after it was reported why.
int publish(const tipc_service_addr& service, const char* name) {
    int fd = tipc_socket();
    if (fd >= 0 && bind_service(fd, service)) {
        if (count_publications(service, own_node(fd)) <= 1)
            return fd;
        errno = EADDRINUSE;
    }
    int error = errno;
    if (fd >= 0)
        close(fd);
    OKA_ERROR("OKA: Mailbox '%s/%s' cannot be published over TIPC: %s", services.unit, name, strerror(error));
    return -1;
}

} // namespace

void set_published_unit(const char* unit) {
    snprintf(services.unit, sizeof services.unit, "%s", unit);
}

bool announce_service(oka_mailbox mailbox, const char* name) {
    int fd = publish(service_of(services.unit, name), name);
    if (fd < 0)
        return false;
    auto* fresh = new listener{.next = services.all,
                               .watched = {},
                               .mailbox = mailbox,
                               .wanted = make_wanted(services.unit, name),
                               .name = {}};
    snprintf(fresh->name, sizeof fresh->name, "%s", name);
    fresh->watched = {.fd = fd, .ready = accept_one, .context = fresh};
    if (!watch(fresh->watched, services.accepting ? static_cast<uint32_t>(EPOLLIN) : 0u)) {
        OKA_ERROR("OKA: Mailbox '%s' cannot be watched: %s", name, strerror(errno));
        close(fd);
        delete fresh;
        return false;
    }
    services.all = fresh;
    return true;
}

void withdraw_service(oka_mailbox mailbox) {
    listener** link = &services.all;
    while (*link && (*link)->mailbox != mailbox)
        link = &(*link)->next;
    if (!*link)
        return;
    listener* ended = *link;
    *link = ended->next;
    unwatch(ended->watched);
    close(ended->watched.fd);
    delete ended;
    tell_gone(mailbox);
    if (!services.all)
        stop_accepting();
}

void accept_again() {
    if (!services.accepting && !services.accept_timer)
        set_accepting(true);
}

void stop_accepting() {
    cancel_call(services.accept_timer);
    services.accept_timer = 0;
    services.accepting = true;
    while (services.doorstep)
        close(leave_doorstep(services.doorstep));
}

} // namespace oka
