#include "platform/oxhal/netlink.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <linux/netlink.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

namespace oxhal {
namespace {

constexpr timeval patience = {.tv_sec = 1, .tv_usec = 0};

// The text that the kernel may put behind the error number of an acknowledgement.
void read_kernel_text(const nlmsghdr* message, char* text, size_t size) {
    text[0] = '\0';
    if (!(message->nlmsg_flags & NLM_F_ACK_TLVS) || mnl_nlmsg_get_payload_len(message) < sizeof(nlmsgerr))
        return;
    unsigned offset = sizeof(nlmsgerr);
    const auto* error = static_cast<const nlmsgerr*>(mnl_nlmsg_get_payload(message));
    if (!(message->nlmsg_flags & NLM_F_CAPPED)) {
        // The request stands before the text.
        if (error->msg.nlmsg_len < sizeof(nlmsghdr) || error->msg.nlmsg_len > message->nlmsg_len)
            return;
        offset += static_cast<unsigned>(error->msg.nlmsg_len - sizeof(nlmsghdr));
    }
    attributes<NLMSGERR_ATTR_MSG + 1> found(message, offset);
    if (const nlattr* words = found[NLMSGERR_ATTR_MSG])
        snprintf(text, size, "%.*s", static_cast<int>(mnl_attr_get_payload_len(words)),
                 static_cast<const char*>(mnl_attr_get_payload(words)));
}

// What an acknowledgement says: 0, or an errno value.
int error_of(const nlmsghdr* message) {
    constexpr int largest_errno = 4095;
    int status = 0;
    if (mnl_nlmsg_get_payload_len(message) >= sizeof status)
        memcpy(&status, mnl_nlmsg_get_payload(message), sizeof status);
    if (status < -largest_errno)
        return EBADMSG;
    return status < 0 ? -status : 0;
}

// libmnl takes a length that has the highest bit for a negative one, which fits into anything.
bool is_whole(const nlmsghdr* message, int left) {
    return mnl_nlmsg_ok(message, left) && message->nlmsg_len <= static_cast<uint32_t>(left);
}

} // namespace

int netlink::open(int protocol) {
    if (descriptor >= 0)
        close(descriptor);
    descriptor = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, protocol);
    if (descriptor < 0)
        return errno;
    int on = 1;
    // Without the first two the error texts are missing, and requests come back whole: no harm is done.
    (void)setsockopt(descriptor, SOL_NETLINK, NETLINK_EXT_ACK, &on, sizeof on);
    (void)setsockopt(descriptor, SOL_NETLINK, NETLINK_CAP_ACK, &on, sizeof on);
    sockaddr_nl own = {};
    own.nl_family = AF_NETLINK;
    if (setsockopt(descriptor, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience) ||
        bind(descriptor, reinterpret_cast<const sockaddr*>(&own), sizeof own))
        return errno;
    return 0;
}

nlmsghdr* netlink::begin(uint16_t type, uint16_t flags) {
    nlmsghdr* message = mnl_nlmsg_put_header(request);
    message->nlmsg_type = type;
    message->nlmsg_flags = static_cast<uint16_t>(NLM_F_REQUEST | NLM_F_ACK | flags);
    message->nlmsg_seq = ++sequence;
    return message;
}

int netlink::transact(answer_handler on_answer, void* context) {
    const auto* message = reinterpret_cast<const nlmsghdr*>(request);
    uint32_t length = message->nlmsg_len;
    kernel_text[0] = '\0';
    sockaddr_nl kernel = {};
    kernel.nl_family = AF_NETLINK;
    ssize_t sent =
        sendto(descriptor, request, length, 0, reinterpret_cast<const sockaddr*>(&kernel), sizeof kernel);
    int error = sent == static_cast<ssize_t>(length) ? receive_all(on_answer, context) : errno;
    explicit_bzero(request, length);
    return error;
}

int netlink::receive_all(answer_handler on_answer, void* context) {
    for (;;) {
        ssize_t received = recv(descriptor, reply, sizeof reply, MSG_TRUNC);
        if (received < 0 && errno == EINTR)
            continue;
        if (received < 0)
            return errno == EAGAIN ? ETIMEDOUT : errno;
        if (received > static_cast<ssize_t>(sizeof reply))
            return EMSGSIZE;
        int left = static_cast<int>(received);
        bool done = false;
        int error = 0;
        for (const auto* each = reinterpret_cast<const nlmsghdr*>(reply); !done && is_whole(each, left);
             each = mnl_nlmsg_next(each, &left)) {
            if (each->nlmsg_seq != sequence)
                continue; // late, for a request that was given up
            if (each->nlmsg_type == NLMSG_ERROR || each->nlmsg_type == NLMSG_DONE) {
                done = true;
                error = error_of(each);
                if (error)
                    read_kernel_text(each, kernel_text, sizeof kernel_text);
            } else if (on_answer) {
                on_answer(each, context);
            }
        }
        explicit_bzero(reply, static_cast<size_t>(received));
        if (done)
            return error;
    }
}

} // namespace oxhal
