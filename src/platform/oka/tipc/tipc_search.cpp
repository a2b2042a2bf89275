#include "platform/oka/tipc/tipc_search.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "platform/oka/core/descriptors.h"
#include "platform/oka/core/oka_trace.h"
#include "platform/oka/links/link.h"
#include "platform/oka/tipc/tipc_address.h"

namespace oka {

namespace {

// A socket that was published but did not answer is asked again after a while, and less and less often.
constexpr uint64_t first_retry_ms = 100;
constexpr uint64_t longest_retry_ms = 30'000;
// How long a machine may take to answer; one that is gone is known sooner, by the end of its TIPC link.
constexpr uint32_t connect_timeout_ms = 5'000;
// Sockets that one search knows of at a time: more than one only while names share an address, or while a
// dead process's is not yet withdrawn.
constexpr size_t candidates_limit = 4;

struct search {
    link_search link; // first: the link's callbacks get this one
    search* next;
    uint32_t locate;
    tipc_subscr subscription;
    wanted_packet wanted;
    descriptor connecting;                         // fd is -1 while there is none
    tipc_socket_addr candidates[candidates_limit]; // published, and to be asked
    size_t candidate_count;
    uint32_t retry_timer;
    uint64_t retry_ms;
};

void hear_topology(void* context, uint32_t events);

struct {
    char own_unit[OKA_UNIT_PATH_SIZE] = {};
    search* all = nullptr;
    descriptor topology = {.fd = -1, .ready = hear_topology, .context = nullptr};
    uint32_t reconnect_timer = 0;
} searches;

// --- The topology server

// Blocking, since the server is the kernel's own and answers at once; -1 with errno.
int connect_to_topology() {
    int fd = socket(AF_TIPC, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return -1;
    sockaddr_tipc address = {};
    address.family = AF_TIPC;
    address.addrtype = TIPC_SERVICE_ADDR;
    address.addr.name = {.name = {.type = TIPC_TOP_SRV, .instance = TIPC_TOP_SRV}, .domain = 0};
    if (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0)
        return fd;
    int error = errno;
    close(fd);
    errno = error;
    return -1;
}

tipc_subscr subscription_to(const tipc_service_addr& service) {
    tipc_subscr made = {};
    made.seq = {.type = service.type, .lower = service.instance, .upper = service.instance};
    made.timeout = static_cast<uint32_t>(TIPC_WAIT_FOREVER);
    made.filter = TIPC_SUB_PORTS;
    return made;
}

bool send_subscription(int fd, const tipc_subscr& subscription) {
    return send(fd, &subscription, sizeof subscription, MSG_NOSIGNAL) ==
           static_cast<ssize_t>(sizeof subscription);
}

// One that cannot be sent is made up for when the server is asked anew: then it has closed the connection.
void subscribe(const tipc_subscr& subscription) {
    (void)send_subscription(searches.topology.fd, subscription);
}

void unsubscribe(const tipc_subscr& subscription) {
    tipc_subscr ended = subscription;
    ended.filter |= TIPC_SUB_CANCEL;
    (void)send_subscription(searches.topology.fd, ended);
}

// --- Asking who is published

void try_next_candidate(search& of);

void resubscribe(void* context) {
    auto& of = *static_cast<search*>(context);
    of.retry_timer = 0;
    of.candidate_count = 0;
    if (searches.topology.fd < 0)
        return; // it is subscribed when the server is asked again
    // Whoever is published is told again.
    unsubscribe(of.subscription);
    subscribe(of.subscription);
}

void retry_later(search& of) {
    of.retry_ms = std::clamp(of.retry_ms * 2, first_retry_ms, longest_retry_ms);
    if (!of.retry_timer)
        of.retry_timer = call_later(of.retry_ms, resubscribe, &of);
}

void stop_connecting(search& of) {
    if (of.connecting.fd < 0)
        return;
    unwatch(of.connecting);
    close(of.connecting.fd);
    of.connecting.fd = -1;
}

void handle_failed(link_search& link) {
    try_next_candidate(reinterpret_cast<search&>(link));
}

void handle_found(link_search& link, oka_mailbox mailbox) {
    answer_locate(reinterpret_cast<search&>(link).locate, mailbox);
}

// Connected, or not: the names are the first packet, and then the link begins.
void handle_connected(void* context, uint32_t events) {
    auto& of = *static_cast<search*>(context);
    int fd = of.connecting.fd;
    int error = 0;
    socklen_t size = sizeof error;
    (void)getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &size);
    if (error || (events & (EPOLLERR | EPOLLHUP)) ||
        send(fd, of.wanted.bytes, of.wanted.size, MSG_NOSIGNAL | MSG_DONTWAIT) < 0) {
        stop_connecting(of);
        try_next_candidate(of);
        return;
    }
    unwatch(of.connecting);
    of.connecting.fd = -1;
    begin_link(of.link, fd, other_node(fd));
}

bool begin_connecting(search& of, const tipc_socket_addr& to) {
    int fd = room_for_link() ? tipc_socket() : -1;
    if (fd < 0)
        return false;
    (void)setsockopt(fd, SOL_TIPC, TIPC_CONN_TIMEOUT, &connect_timeout_ms, sizeof connect_timeout_ms);
    sockaddr_tipc address = {};
    address.family = AF_TIPC;
    address.addrtype = TIPC_SOCKET_ADDR;
    address.addr.id = to;
    of.connecting = {.fd = fd, .ready = handle_connected, .context = &of};
    bool begun =
        connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 || errno == EINPROGRESS;
    if (begun && watch(of.connecting, EPOLLOUT))
        return true;
    close(fd);
    of.connecting.fd = -1;
    return false;
}

void try_next_candidate(search& of) {
    while (of.candidate_count > 0) {
        tipc_socket_addr next = of.candidates[0];
        std::copy(of.candidates + 1, of.candidates + of.candidate_count, of.candidates);
        --of.candidate_count;
        if (begin_connecting(of, next))
            return;
    }
    retry_later(of);
}

bool same(const tipc_socket_addr& one, const tipc_socket_addr& other) {
    return one.ref == other.ref && one.node == other.node;
}

void take_event(search& of, const tipc_event& event) {
    tipc_socket_addr* end = of.candidates + of.candidate_count;
    tipc_socket_addr* known =
        std::find_if(of.candidates, end, [&](const auto& each) { return same(each, event.port); });
    if (event.event == TIPC_WITHDRAWN && known != end) {
        std::copy(known + 1, end, known);
        --of.candidate_count;
    }
    if (event.event != TIPC_PUBLISHED || known != end || of.candidate_count == candidates_limit)
        return;
    of.candidates[of.candidate_count++] = event.port;
    if (of.connecting.fd < 0 && !of.link.busy())
        try_next_candidate(of);
}

search* find_search(uint32_t locate) {
    search* each = searches.all;
    while (each && each->locate != locate)
        each = each->next;
    return each;
}

void open_topology(void*) {
    searches.reconnect_timer = 0;
    searches.topology.fd = connect_to_topology();
    if (searches.topology.fd >= 0 && watch(searches.topology, EPOLLIN)) {
        for (const search* each = searches.all; each; each = each->next)
            subscribe(each->subscription);
        return;
    }
    OKA_ERROR("OKA: TIPC's topology server cannot be asked: %s", strerror(errno));
    if (searches.topology.fd >= 0)
        close(searches.topology.fd);
    searches.topology.fd = -1;
    searches.reconnect_timer = call_later(longest_retry_ms, open_topology, nullptr);
}

void close_topology() {
    cancel_call(searches.reconnect_timer);
    searches.reconnect_timer = 0;
    if (searches.topology.fd < 0)
        return;
    unwatch(searches.topology);
    close(searches.topology.fd);
    searches.topology.fd = -1;
}

void hear_topology(void*, uint32_t) {
    tipc_event event = {};
    ssize_t size = recv(searches.topology.fd, &event, sizeof event, MSG_DONTWAIT);
    if (size < 0 && (errno == EAGAIN || errno == EINTR))
        return;
    if (size != static_cast<ssize_t>(sizeof event)) {
        close_topology();
        open_topology(nullptr);
        return;
    }
    uint32_t locate = 0;
    memcpy(&locate, event.s.usr_handle, sizeof locate);
    if (search* of = find_search(locate))
        take_event(*of, event);
}

} // namespace

void set_searching_unit(const char* unit) {
    snprintf(searches.own_unit, sizeof searches.own_unit, "%s", unit);
}

void start_tipc_search(uint32_t id, const char* unit, const char* name) {
    const char* of_unit = *unit ? unit : searches.own_unit;
    auto* fresh = new search{};
    fresh->link.found = handle_found;
    fresh->link.failed = handle_failed;
    fresh->connecting.fd = -1;
    fresh->locate = id;
    fresh->wanted = make_wanted(of_unit, name);
    fresh->subscription = subscription_to(service_of(of_unit, name));
    memcpy(fresh->subscription.usr_handle, &id, sizeof id);
    fresh->next = searches.all;
    searches.all = fresh;
    if (searches.topology.fd >= 0)
        subscribe(fresh->subscription);
    else if (!searches.reconnect_timer)
        open_topology(nullptr);
}

void cancel_tipc_search(uint32_t id) {
    search** link = &searches.all;
    while (*link && (*link)->locate != id)
        link = &(*link)->next;
    if (!*link)
        return;
    search* ended = *link;
    *link = ended->next;
    if (searches.topology.fd >= 0)
        unsubscribe(ended->subscription);
    stop_connecting(*ended);
    cancel_link(ended->link);
    cancel_call(ended->retry_timer);
    delete ended;
    if (!searches.all)
        close_topology();
}

uint32_t count_publications(const tipc_service_addr& service, uint32_t node) {
    int fd = connect_to_topology();
    if (fd < 0)
        return 0;
    // The server works off one subscription after the other, and is published itself: the event that tells of
    // the server comes behind all those that are asked for.
    const tipc_subscr subscriptions[] = {subscription_to(service),
                                         subscription_to({.type = TIPC_TOP_SRV, .instance = TIPC_TOP_SRV})};
    bool sent = true;
    for (const tipc_subscr& each : subscriptions)
        sent &= send_subscription(fd, each);
    uint32_t count = 0;
    tipc_event event = {};
    while (sent && recv(fd, &event, sizeof event, 0) == static_cast<ssize_t>(sizeof event) &&
           event.s.seq.type != TIPC_TOP_SRV)
        count += event.event == TIPC_PUBLISHED && event.port.node == node;
    close(fd);
    return count;
}

} // namespace oka
