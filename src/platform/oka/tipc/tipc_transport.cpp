#include "platform/oka/tipc/tipc_transport.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/oka/core/oka_trace.h"
#include "platform/oka/links/link.h"
#include "platform/oka/tipc/tipc_address.h"
#include "platform/oka/tipc/tipc_listener.h"
#include "platform/oka/tipc/tipc_search.h"

namespace {

const char* key_mark() {
    const char* chosen = getenv("OKA_TIPC_KEY_MARK");
    return chosen && *chosen ? chosen : "/run/oka-tipc-key";
}

// What the mark says, without the end of the line; "" when there is none, or it is not root's.
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

int start(const char* own_unit) {
    int probe = oka::tipc_socket();
    if (probe < 0) {
        int error = errno;
        OKA_ERROR("OKA: The kernel has no TIPC (%s): load it with \"modprobe tipc\"", strerror(error));
        return error;
    }
    close(probe);
    if (!may_be_clear() && !has_node_key()) {
        OKA_ERROR(
            "OKA: The keys of links would travel over TIPC in the clear: '%s' does not say that this node "
            "has a TIPC key. Set one with oka-tipc-up, or let OKA_TIPC_CLEAR=yes say that the cluster's "
            "network is protected otherwise",
            key_mark());
        return EPERM;
    }
    oka::set_published_unit(own_unit);
    oka::set_searching_unit(own_unit);
    if (oka::start_links(oka::accept_again))
        return 0;
    int error = errno;
    OKA_ERROR("OKA: No random numbers: %s", strerror(error));
    return error;
}

void stop() {
    oka::stop_accepting();
    oka::stop_links();
}

} // namespace

const oka::transport oka::tipc_transport = {.name = "tipc",
                                            .between_hosts = true,
                                            .start = start,
                                            .stop = stop,
                                            .announce = announce_service,
                                            .withdraw = withdraw_service,
                                            .locate = start_tipc_search,
                                            .cancel_locate = cancel_tipc_search};
