// The kernel hands a frame without a SecTAG to the controlled port, unless it validates strictly, and in
// any case to the common port as well. Both belong to one host: the IP stack takes a packet to any address
// of the host from any of its interfaces, whether that interface has an address or not. So its user gets
// a clear packet twice, and on a secured link, where the controlled port drops clear frames, still gets
// them by the common port, from anybody who can put a frame on the cable.
//
// Neither leaving the common port without addresses nor rp_filter nor "arp off" ends this: a connected
// UDP socket is found by early demultiplexing, before the packet's way in is looked at. What does is to
// decide at the ingress of the common port, before the kernel makes a copy: a clear frame of IP or ARP is
// redirected to the controlled port, while that admits clear frames, and dropped otherwise. The dropping
// filter stays for good behind the redirecting one, so that the change from one to the other has no gap.
//
// MACsec frames, and control protocols that live on the common port by right (TIPC, LLDP, EAPOL), are not
// of these types and pass untouched.
#include "platform/oxhal/clear_frames.h"

#include <arpa/inet.h>
#include <cerrno>
#include <linux/if_ether.h>
#include <linux/pkt_cls.h>
#include <linux/pkt_sched.h>
#include <linux/rtnetlink.h>
#include <linux/tc_act/tc_gact.h>
#include <linux/tc_act/tc_mirred.h>

namespace oxhal {
namespace {

// Each filter has a preference of its own. The numbers are high, so that a user's own filters go first.
struct filter {
    uint32_t preference;
    uint16_t ether_type;
};
constexpr filter redirecting[] = {{0xae10, ETH_P_IP}, {0xae11, ETH_P_IPV6}, {0xae12, ETH_P_ARP}};
constexpr filter dropping[] = {{0xae20, ETH_P_IP}, {0xae21, ETH_P_IPV6}, {0xae22, ETH_P_ARP}};

nlmsghdr* begin(netlink& route, uint16_t type, uint16_t flags, unsigned interface, uint32_t parent,
                uint32_t handle, uint32_t info) {
    nlmsghdr* message = route.begin(type, flags);
    auto* head = static_cast<tcmsg*>(mnl_nlmsg_put_extra_header(message, sizeof(tcmsg)));
    head->tcm_family = AF_UNSPEC;
    head->tcm_ifindex = static_cast<int>(interface);
    head->tcm_parent = parent;
    head->tcm_handle = handle;
    head->tcm_info = info;
    return message;
}

nlmsghdr* begin_filter(netlink& route, uint16_t type, uint16_t flags, unsigned interface,
                       const filter& which) {
    nlmsghdr* message = begin(route, type, flags, interface, TC_H_MAKE(TC_H_CLSACT, TC_H_MIN_INGRESS), 0,
                              TC_H_MAKE(which.preference << 16, htons(which.ether_type)));
    mnl_attr_put_strz(message, TCA_KIND, "matchall");
    return message;
}

int ensure_ingress(netlink& route, unsigned interface) {
    nlmsghdr* message = begin(route, RTM_NEWQDISC, NLM_F_CREATE | NLM_F_EXCL, interface, TC_H_CLSACT,
                              TC_H_MAKE(TC_H_CLSACT, 0), 0);
    mnl_attr_put_strz(message, TCA_KIND, "clsact");
    int error = route.transact();
    return error == EEXIST ? 0 : error;
}

template<class Parameters>
int add_filter(netlink& route, unsigned interface, const filter& which, const char* action, uint16_t type,
               const Parameters& parameters) {
    nlmsghdr* message = begin_filter(route, RTM_NEWTFILTER, NLM_F_CREATE | NLM_F_EXCL, interface, which);
    nlattr* options = mnl_attr_nest_start(message, TCA_OPTIONS);
    nlattr* actions = mnl_attr_nest_start(message, TCA_MATCHALL_ACT);
    nlattr* first = mnl_attr_nest_start(message, 1);
    mnl_attr_put_strz(message, TCA_ACT_KIND, action);
    nlattr* action_options = mnl_attr_nest_start(message, TCA_ACT_OPTIONS);
    mnl_attr_put(message, type, sizeof parameters, &parameters);
    mnl_attr_nest_end(message, action_options);
    mnl_attr_nest_end(message, first);
    mnl_attr_nest_end(message, actions);
    mnl_attr_nest_end(message, options);
    int error = route.transact();
    return error == EEXIST ? 0 : error;
}

// An error means that there is none, which is what is wanted.
void delete_filter(netlink& route, unsigned interface, const filter& which) {
    begin_filter(route, RTM_DELTFILTER, 0, interface, which);
    (void)route.transact();
}

} // namespace

int set_clear_frame_filters(netlink& route, unsigned common_port, unsigned controlled_port, bool admit) {
    // One that is there may lead to a controlled port of earlier times.
    for (const filter& each : redirecting)
        delete_filter(route, common_port, each);
    int error = ensure_ingress(route, common_port);
    for (const filter& each : dropping) {
        tc_gact drop = {};
        drop.action = TC_ACT_SHOT;
        if (!error)
            error = add_filter(route, common_port, each, "gact", TCA_GACT_PARMS, drop);
    }
    for (const filter& each : redirecting) {
        tc_mirred redirect = {};
        redirect.action = TC_ACT_STOLEN;
        redirect.eaction = TCA_INGRESS_REDIR;
        redirect.ifindex = controlled_port;
        if (!error && admit)
            error = add_filter(route, common_port, each, "mirred", TCA_MIRRED_PARMS, redirect);
    }
    return error;
}

void remove_clear_frame_filters(netlink& route, unsigned common_port) {
    for (const filter& each : redirecting)
        delete_filter(route, common_port, each);
    for (const filter& each : dropping)
        delete_filter(route, common_port, each);
}

} // namespace oxhal
