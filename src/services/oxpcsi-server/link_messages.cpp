#include "services/oxpcsi-server/link_messages.h"

#include <climits>
#include <cstring>
#include <libmnl/libmnl.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>

namespace oxpcsi {

namespace {

// Interfaces are known by their names, so a message without one is useless.
int read_attribute(const nlattr* attribute, void* context) {
    auto& event = *static_cast<link_event*>(context);
    switch (mnl_attr_get_type(attribute)) {
    case IFLA_IFNAME:
        if (mnl_attr_validate(attribute, MNL_TYPE_NUL_STRING) == 0 &&
            mnl_attr_get_payload_len(attribute) <= sizeof event.name)
            strcpy(event.name, mnl_attr_get_str(attribute));
        break;
    case IFLA_ADDRESS:
        if (mnl_attr_get_payload_len(attribute) == sizeof event.mac_address)
            memcpy(event.mac_address, mnl_attr_get_payload(attribute), sizeof event.mac_address);
        break;
    }
    return MNL_CB_OK;
}

bool parse_link(const nlmsghdr* message, link_event_type type, void (*handle)(const link_event&)) {
    if (mnl_nlmsg_get_payload_len(message) < sizeof(ifinfomsg))
        return false;
    const auto* link = static_cast<const ifinfomsg*>(mnl_nlmsg_get_payload(message));
    // A message of another family is about that family's part of an interface: "deleted" of a bridge means
    // that the interface left the bridge.
    if (link->ifi_family != AF_UNSPEC)
        return true;
    link_event event = {};
    event.type = type;
    event.index = static_cast<uint32_t>(link->ifi_index);
    event.flags = link->ifi_flags;
    mnl_attr_parse(message, sizeof *link, read_attribute, &event);
    if (event.name[0] != '\0')
        handle(event);
    return true;
}

void report(link_event_type type, void (*handle)(const link_event&), int error = 0) {
    link_event event = {};
    event.type = type;
    event.error = error;
    handle(event);
}

// Both kinds of messages that end an answer may begin with a negative errno value. 0, or no value, means
// success.
bool parse_end(const nlmsghdr* message, void (*handle)(const link_event&)) {
    constexpr int largest_errno = 4095;
    int status = 0;
    if (mnl_nlmsg_get_payload_len(message) >= sizeof status)
        memcpy(&status, mnl_nlmsg_get_payload(message), sizeof status);
    else if (message->nlmsg_type == NLMSG_ERROR)
        return false;
    if (status < -largest_errno)
        return false;
    if (status < 0)
        report(link_event_type::refused, handle, -status);
    else if (message->nlmsg_type == NLMSG_DONE)
        report(link_event_type::all_told, handle);
    return true;
}

bool parse_message(const nlmsghdr* message, void (*handle)(const link_event&)) {
    // The kernel sets the flag only in the first message after the interruption.
    if (message->nlmsg_flags & NLM_F_DUMP_INTR)
        report(link_event_type::interrupted, handle);
    switch (message->nlmsg_type) {
    case RTM_NEWLINK:
        return parse_link(message, link_event_type::present, handle);
    case RTM_DELLINK:
        return parse_link(message, link_event_type::gone, handle);
    case NLMSG_DONE:
    case NLMSG_ERROR:
        return parse_end(message, handle);
    case NLMSG_OVERRUN:
        report(link_event_type::overrun, handle);
        return true;
    default:
        return true;
    }
}

// libmnl reads a length with the highest bit as a negative one, which seems to fit into any buffer.
bool is_whole(const nlmsghdr* message, int left) {
    return mnl_nlmsg_ok(message, left) && message->nlmsg_len <= static_cast<uint32_t>(left);
}

} // namespace

bool parse_link_messages(const void* datagram, size_t size, void (*handle)(const link_event&)) {
    if (size > INT_MAX)
        return false;
    int left = static_cast<int>(size);
    const auto* message = static_cast<const nlmsghdr*>(datagram);
    while (is_whole(message, left)) {
        if (!parse_message(message, handle))
            return false;
        message = mnl_nlmsg_next(message, &left);
    }
    // The padding of the last message may be missing; then the remaining length is negative.
    return left <= 0;
}

} // namespace oxpcsi
