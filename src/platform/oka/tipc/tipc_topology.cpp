#include "platform/oka/tipc/tipc_topology.h"

#include <cerrno>
#include <cstring>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "platform/oka/core/descriptors.h"
#include "platform/oka/core/oka_trace.h"
#include "platform/oka/links/search.h"
#include "platform/oka/tipc/tipc_address.h"

namespace oka::af_tipc {

namespace {

constexpr uint64_t reconnect_ms = 30'000;

void hear_event(void* context, uint32_t events);

struct {
    const family* over = nullptr; // whose searches are subscribed
    descriptor watched = {.fd = -1, .ready = hear_event, .context = nullptr};
    uint32_t reconnect_timer = 0;
} server;

// The socket blocks, since the server is in the kernel and answers at once. -1 with errno.
int connect_to_server() {
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

// If it cannot be sent, the server has closed the connection; all searches are subscribed when it is opened
// anew.
void subscribe(const search& of, uint32_t filter) {
    tipc_subscr subscription = subscription_to(service_of(of.wanted()));
    subscription.filter |= filter;
    memcpy(subscription.usr_handle, &of.locate, sizeof of.locate);
    (void)send_subscription(server.watched.fd, subscription);
}

void unsubscribe(const search& of) {
    subscribe(of, TIPC_SUB_CANCEL);
}

void close_server() {
    cancel_call(server.reconnect_timer);
    server.reconnect_timer = 0;
    if (server.watched.fd < 0)
        return;
    unwatch(server.watched);
    close(server.watched.fd);
    server.watched.fd = -1;
}

// Subscribes all searches.
void open_server(void*) {
    server.reconnect_timer = 0;
    server.watched.fd = connect_to_server();
    if (server.watched.fd >= 0 && watch(server.watched, EPOLLIN)) {
        for (search* each = next_search(*server.over, nullptr); each; each = next_search(*server.over, each))
            subscribe(*each, 0);
        return;
    }
    OKA_ERROR("OKA: TIPC's topology server cannot be asked: %s", strerror(errno));
    if (server.watched.fd >= 0)
        close(server.watched.fd);
    server.watched.fd = -1;
    server.reconnect_timer = call_later(reconnect_ms, open_server, nullptr);
}

search* find_search(uint32_t locate) {
    search* each = next_search(*server.over, nullptr);
    while (each && each->locate != locate)
        each = next_search(*server.over, each);
    return each;
}

void hear_event(void*, uint32_t) {
    tipc_event event = {};
    ssize_t size = recv(server.watched.fd, &event, sizeof event, MSG_DONTWAIT);
    if (size < 0 && (errno == EAGAIN || errno == EINTR))
        return;
    if (size != static_cast<ssize_t>(sizeof event)) {
        close_server();
        open_server(nullptr);
        return;
    }
    uint32_t locate = 0;
    memcpy(&locate, event.s.usr_handle, sizeof locate);
    search* of = find_search(locate);
    if (of && event.event == TIPC_PUBLISHED)
        add_place(*of, place_of(event.port));
    if (of && event.event == TIPC_WITHDRAWN)
        remove_place(*of, place_of(event.port));
    try_places(*server.over);
}

} // namespace

void look(search& of) {
    server.over = of.over;
    if (server.watched.fd < 0) {
        if (!server.reconnect_timer)
            open_server(nullptr);
        return;
    }
    // So the server tells again of what it told already.
    unsubscribe(of);
    subscribe(of, 0);
}

void stop_looking(const search& of) {
    if (server.watched.fd >= 0)
        unsubscribe(of);
    if (!next_search(*of.over, nullptr))
        close_server();
}

uint32_t count_publications(const tipc_service_addr& service, uint32_t node) {
    int fd = connect_to_server();
    if (fd < 0)
        return 0;
    // The server handles subscriptions in order, and is published itself: the event about the server comes
    // after all events about the service.
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

} // namespace oka::af_tipc
