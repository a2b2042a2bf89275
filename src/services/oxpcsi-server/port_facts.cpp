#include "services/oxpcsi-server/port_facts.h"

#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <initializer_list>
#include <libmnl/libmnl.h>
#include <linux/ethtool.h>
#include <linux/if.h>
#include <linux/rtnetlink.h>
#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/trace.h"
#include "platform/oka_timer.h"
#include "platform/oka_watch.h"
#include "protocols/message_numbers.h"
#include "services/oxpcsi-server/link_messages.h"

namespace oxpcsi {

namespace {

constexpr uint32_t read_again_period_ms = 1000;
// Bounds one turn of reading, so that clients are served in between however many messages the kernel sends.
constexpr int datagrams_per_turn = 32;

struct followed_port {
    const char* name;
    port_facts facts;
    bool told; // since the last request for all interfaces
};

struct {
    mnl_socket* socket;
    oka_watch_ref watch;
    oka_timer_ref read_again_timer;
    port_facts_callbacks callbacks;
    followed_port ports[ports_max];
    size_t count;
    bool reading_all; // the answer to a request for all interfaces is not complete
    bool out_of_step; // the request must be sent again when it is complete
    bool all_known;
} self;

// The kernel sends at most half of this in one datagram, and describes an interface in far less.
alignas(NLMSG_ALIGNTO) char datagram[65536];

// The speed that the driver reports, or 0: the interface may be gone already, or have no speed.
uint32_t line_rate_of(const char* name) {
    // The settings, and after them three masks. The kernel tells how many words each has.
    alignas(ethtool_link_settings) char
        answer[sizeof(ethtool_link_settings) + size_t{3} * INT8_MAX * sizeof(uint32_t)] = {};
    auto& settings = *reinterpret_cast<ethtool_link_settings*>(answer);
    ifreq request = {};
    strncpy(request.ifr_name, name, sizeof request.ifr_name - 1);
    request.ifr_data = answer;

    // The first call leaves no room for masks, so the kernel answers with the number of words, negated.
    for (bool sized : {false, true}) {
        settings.cmd = ETHTOOL_GLINKSETTINGS;
        settings.link_mode_masks_nwords = static_cast<int8_t>(-settings.link_mode_masks_nwords);
        if (ioctl(mnl_socket_get_fd(self.socket), SIOCETHTOOL, &request) != 0)
            return 0;
        if (sized != (settings.link_mode_masks_nwords > 0))
            return 0;
    }
    return settings.speed == static_cast<uint32_t>(SPEED_UNKNOWN) ? 0 : settings.speed;
}

void update(followed_port& port, const port_facts& facts) {
    if (port.facts == facts)
        return;
    port.facts = facts;
    self.callbacks.port_changed(static_cast<size_t>(&port - self.ports), facts);
}

void lose_interface(followed_port& port) {
    port_facts facts = {};
    memcpy(facts.mac_address, port.facts.mac_address, sizeof facts.mac_address);
    update(port, facts);
}

void handle_present(const link_event& event) {
    for (size_t i = 0; i < self.count; i++) {
        followed_port& port = self.ports[i];
        if (strcmp(port.name, event.name) == 0) {
            port.told = true;
            port_facts facts = {};
            facts.present = true;
            facts.unlocked = event.flags & IFF_UP;
            // "Running" means operationally up, even if the driver has no operational state. "Lower up"
            // means carrier.
            facts.enabled = facts.unlocked && (event.flags & IFF_RUNNING) && (event.flags & IFF_LOWER_UP);
            facts.line_rate = line_rate_of(port.name);
            facts.index = event.index;
            memcpy(facts.mac_address, event.mac_address, sizeof facts.mac_address);
            update(port, facts);
        } else if (port.facts.index == event.index) {
            lose_interface(port); // it has another name now
        }
    }
}

void handle_gone(const link_event& event) {
    for (size_t i = 0; i < self.count; i++) {
        if (self.ports[i].facts.index == event.index)
            lose_interface(self.ports[i]);
    }
}

void start_read_again_timer() {
    if (self.read_again_timer != 0)
        return;
    oka_message* timeout = oka_alloc(sizeof *timeout, READ_AGAIN_TIMEOUT_IND);
    self.read_again_timer = oka_timer_request_sig(read_again_period_ms, &timeout);
}

// Asks for all interfaces. The answer and the changes come through the same socket in the order in which they
// became true, so an old answer cannot overwrite a newer change.
void read_all() {
    if (self.reading_all) {
        self.out_of_step = true;
        return;
    }
    struct {
        nlmsghdr header;
        ifinfomsg link;
        nlattr filter;
        uint32_t filter_mask;
    } request = {};
    static_assert(sizeof request == 40);
    request.header.nlmsg_len = sizeof request;
    request.header.nlmsg_type = RTM_GETLINK;
    request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    request.link.ifi_family = AF_UNSPEC;
    request.filter = {.nla_len = 8, .nla_type = IFLA_EXT_MASK};
    request.filter_mask = RTEXT_FILTER_SKIP_STATS;

    for (size_t i = 0; i < self.count; i++)
        self.ports[i].told = false;
    self.out_of_step = false;
    self.reading_all = mnl_socket_sendto(self.socket, &request, sizeof request) >= 0;
    if (!self.reading_all) {
        TRACE_ERROR("OXPCSI: The kernel does not take the request for all interfaces: %s", strerror(errno));
        start_read_again_timer();
    }
}

void handle_all_told() {
    self.reading_all = false;
    if (self.out_of_step) {
        read_all();
        return;
    }
    for (size_t i = 0; i < self.count; i++) {
        if (!self.ports[i].told && self.ports[i].facts.present)
            lose_interface(self.ports[i]);
    }
    if (!self.all_known) {
        self.all_known = true;
        self.callbacks.all_known();
    }
}

void handle_refused(const link_event& event) {
    TRACE_ERROR("OXPCSI: The kernel refuses to tell all interfaces: %s", strerror(event.error));
    self.reading_all = false;
    start_read_again_timer();
}

void handle_event(const link_event& event) {
    switch (event.type) {
    case link_event_type::present:
        return handle_present(event);
    case link_event_type::gone:
        return handle_gone(event);
    case link_event_type::all_told:
        return handle_all_told();
    case link_event_type::interrupted:
        self.out_of_step = true;
        return;
    case link_event_type::refused:
        return handle_refused(event);
    case link_event_type::overrun:
        return read_all();
    }
}

// False when nothing more can be read now.
bool read_datagram() {
    sockaddr_nl from = {};
    socklen_t from_size = sizeof from;
    ssize_t size = recvfrom(mnl_socket_get_fd(self.socket), datagram, sizeof datagram, MSG_TRUNC,
                            reinterpret_cast<sockaddr*>(&from), &from_size);
    if (size < 0 && errno == ENOBUFS) {
        TRACE_INFO("OXPCSI: The kernel said more than could be kept; reading every interface afresh");
        read_all();
        return true;
    }
    if (size < 0) {
        if (errno != EAGAIN && errno != EINTR)
            TRACE_ERROR("OXPCSI: Reading from netlink failed: %s", strerror(errno));
        return errno == EINTR;
    }
    // Any process may write to the socket. Only the kernel has the sender 0.
    if (from_size != sizeof from || from.nl_pid != 0) {
        TRACE_ERROR("OXPCSI: A netlink message of process %u is not the kernel's; dropped", from.nl_pid);
        return true;
    }
    if (static_cast<size_t>(size) > sizeof datagram) {
        TRACE_ERROR("OXPCSI: A netlink message of %zd bytes is too long; dropped", size);
        return true;
    }
    if (!parse_link_messages(datagram, static_cast<size_t>(size), handle_event))
        TRACE_ERROR("OXPCSI: A netlink message of %zd bytes is malformed; its rest is dropped", size);
    return true;
}

bool open_socket() {
    self.socket = mnl_socket_open2(NETLINK_ROUTE, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (self.socket && mnl_socket_bind(self.socket, RTMGRP_LINK, MNL_SOCKET_AUTOPID) == 0)
        return true;
    TRACE_ERROR("OXPCSI: Cannot listen to rtnetlink: %s", strerror(errno));
    return false;
}

} // namespace

bool port_facts_start(const char* const* names, size_t count, oka_mailbox mailbox,
                      const port_facts_callbacks& callbacks) {
    if (!open_socket())
        return false;
    self.watch = oka_watch(mnl_socket_get_fd(self.socket), mailbox, NETLINK_READABLE_IND);
    if (self.watch == 0)
        return false;
    self.callbacks = callbacks;
    self.count = count < ports_max ? count : ports_max;
    for (size_t i = 0; i < self.count; i++)
        self.ports[i] = {.name = names[i], .facts = {}, .told = false};
    read_all();
    return true;
}

void port_facts_stop() {
    oka_unwatch(self.watch);
    oka_timer_cancel(self.read_again_timer);
    if (self.socket)
        mnl_socket_close(self.socket);
    self = {};
}

bool port_facts_dispatch_message(const oka_message* message) {
    if (oka_sender(message) != OKA_MAILBOX_NONE)
        return false;
    switch (message->number) {
    case NETLINK_READABLE_IND:
        for (int i = 0; i < datagrams_per_turn && read_datagram(); i++) {
        }
        return true;
    case READ_AGAIN_TIMEOUT_IND:
        self.read_again_timer = 0;
        read_all();
        return true;
    default:
        return false;
    }
}

const char* own_network_namespace() {
    static char name[256];
    name[0] = '\0';
    struct stat own;
    DIR* directory = opendir("/run/netns");
    if (!directory || stat("/proc/self/ns/net", &own) != 0) {
        if (directory)
            closedir(directory);
        return name;
    }
    while (const dirent* entry = readdir(directory)) {
        struct stat named;
        if (fstatat(dirfd(directory), entry->d_name, &named, 0) == 0 && named.st_dev == own.st_dev &&
            named.st_ino == own.st_ino) {
            strncpy(name, entry->d_name, sizeof name - 1);
            break;
        }
    }
    closedir(directory);
    return name;
}

} // namespace oxpcsi
