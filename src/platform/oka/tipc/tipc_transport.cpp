#include "platform/oka/tipc/tipc_transport.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string_view>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/oka/core/names.h"
#include "platform/oka/core/oka_trace.h"
#include "platform/oka/links/group.h"
#include "platform/oka/links/stream_transport.h"
#include "platform/oka/tipc/tipc_address.h"
#include "platform/oka/tipc/tipc_topology.h"

namespace oka::af_tipc {

extern const family sockets;

namespace {

constexpr int waiting_connections = 128;
constexpr char usual_secret[] = "/etc/qel-tavu/group.secret";

// --- Whether the node's traffic is encrypted

const char* key_mark() {
    const char* chosen = getenv("OKA_TIPC_KEY_MARK");
    return chosen && *chosen ? chosen : "/run/oka-tipc-key";
}

// The first line of the mark; "" when there is no mark, or when it is not root's.
void read_key_mark(char* text, size_t size) {
    text[0] = '\0';
    int fd = open(key_mark(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
    if (fd < 0)
        return;
    struct stat facts = {};
    ssize_t length = 0;
    if (fstat(fd, &facts) == 0 && facts.st_uid == 0 && S_ISREG(facts.st_mode) && !(facts.st_mode & 022))
        length = read(fd, text, size - 1);
    close(fd);
    text[length > 0 ? length : 0] = '\0';
    text[strcspn(text, "\n")] = '\0';
}

bool has_node_key() {
    char space[64];
    ssize_t length = readlink("/proc/self/ns/net", space, sizeof space - 1);
    if (length <= 0)
        return false;
    space[length] = '\0';
    char marked[64];
    read_key_mark(marked, sizeof marked);
    return !strcmp(marked, space);
}

bool may_be_clear() {
    const char* chosen = getenv("OKA_TIPC_CLEAR");
    return chosen && !strcmp(chosen, "yes");
}

int start(const char*) {
    int probe = tipc_socket();
    if (probe < 0) {
        int error = errno;
        OKA_ERROR("OKA: The kernel has no TIPC (%s): load it with \"modprobe tipc\"", strerror(error));
        return error;
    }
    close(probe);
    const char* secret = getenv("OKA_TIPC_SECRET");
    if (int error = read_group_secret(secret && *secret ? secret : usual_secret))
        return error;
    if (may_be_clear() || has_node_key())
        return 0;
    OKA_ERROR("OKA: The keys of links would travel over TIPC in the clear: '%s' does not say that this node "
              "has a TIPC key. Set one with oka-tipc-up, or let OKA_TIPC_CLEAR=yes say that the cluster's "
              "network is protected otherwise",
              key_mark());
    return EPERM;
}

// --- The first packet of a connection: the names of the wanted mailbox, since different names may share a
// TIPC address

struct first_packet {
    char bytes[8 + OKA_UNIT_PATH_SIZE + OKA_MAILBOX_NAME_SIZE];
    size_t size = 0;

    void append(std::string_view more) {
        std::copy(more.begin(), more.end(), bytes + size);
        size += more.size();
    }
};

first_packet first_packet_to(const mailbox_address& wanted) {
    first_packet made;
    made.append("oka-tipc");
    for (const char* name : {wanted.unit, wanted.name})
        made.append({name, strlen(name) + 1}); // with its NUL
    return made;
}

bool introduce(int fd, const mailbox_address& wanted) {
    first_packet first = first_packet_to(wanted);
    return send(fd, first.bytes, first.size, MSG_NOSIGNAL | MSG_DONTWAIT) >= 0;
}

bool admits(oka_mailbox mailbox, uint32_t node, const void* packet, size_t size) {
    mailbox_address own = {};
    if (!find_listener(sockets, mailbox, own))
        return false;
    first_packet expected = first_packet_to(own);
    if (size == expected.size && !memcmp(packet, expected.bytes, size))
        return true;
    OKA_ERROR("OKA: Node %x wants another mailbox than '%s/%s', at the same TIPC address: it is refused",
              node, own.unit, own.name);
    return false;
}

// --- Listening

bool bind_service(int fd, const tipc_service_addr& service) {
    sockaddr_tipc bound = {};
    bound.family = AF_TIPC;
    bound.addrtype = TIPC_SERVICE_RANGE;
    bound.scope = TIPC_CLUSTER_SCOPE;
    bound.addr.nameseq = {.type = service.type, .lower = service.instance, .upper = service.instance};
    // Listens first, since others connect the moment it is published.
    return listen(fd, waiting_connections) == 0 &&
           bind(fd, reinterpret_cast<const sockaddr*>(&bound), sizeof bound) == 0;
}

// Every process of the host can publish something at the same address. So whether the name is taken is asked
// here only where no other transport knows it.
int publish(const mailbox_address& at, published_socket& published) {
    tipc_service_addr service = service_of(at);
    int fd = tipc_socket();
    if (fd >= 0 && bind_service(fd, service)) {
        if (names_are_kept_within_host() || count_publications(service, own_node(fd)) <= 1) {
            published.fd = fd;
            return 0;
        }
        errno = EADDRINUSE;
    }
    int error = errno;
    if (fd >= 0)
        close(fd);
    OKA_ERROR("OKA: Mailbox '%s/%s' cannot be published over TIPC: %s", at.unit, at.name, strerror(error));
    return error;
}

bool find_offered(oka_mailbox mailbox, mailbox_address& found) {
    return find_listener(sockets, mailbox, found);
}

// Every node of the cluster may connect. The key of the cluster keeps other machines out, and the secret of
// the group other processes.
bool may_connect(int fd, const mailbox_address&, uint32_t& node) {
    node = other_node(fd);
    return true;
}

// --- Searching

int connect_to(const search&, uint64_t place, uint32_t& node) {
    int fd = tipc_socket();
    if (fd < 0)
        return -1;
    sockaddr_tipc to = {};
    to.family = AF_TIPC;
    to.addrtype = TIPC_SOCKET_ADDR;
    to.addr.id = socket_at(place);
    node = to.addr.id.node;
    if (connect(fd, reinterpret_cast<const sockaddr*>(&to), sizeof to) == 0 || errno == EINPROGRESS)
        return fd;
    close(fd);
    errno = EAGAIN; // its machine may be out of reach for a while
    return -1;
}

} // namespace

constexpr family sockets = {.name = "tipc",
                            .between_hosts = true,
                            .start = start,
                            .socket_address = socket_address,
                            .is_offered = is_offered,
                            .find_offered = find_offered,
                            .publish = publish,
                            .may_connect = may_connect,
                            .admits = admits,
                            .look = look,
                            .stop_looking = stop_looking,
                            .connect = connect_to,
                            .connects_later = true,
                            .introduce = introduce};

} // namespace oka::af_tipc

const oka::transport oka::tipc_transport = oka::stream_transport<oka::af_tipc::sockets>;
