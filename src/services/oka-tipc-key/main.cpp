// Gives the kernel the key of the TIPC cluster. The key is on no command line, where every user of the
// machine could read it: this process reads it from the file and sends it to the kernel.
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <libmnl/libmnl.h>
#include <linux/genetlink.h>
#include <linux/tipc.h>
#include <linux/tipc_netlink.h>
#include <string>

#include "services/common/options.h"
#include "services/common/tipc_key.h"

namespace {

int complain(const std::string& what) {
    fprintf(stderr, "oka-tipc-key: %s\n", what.c_str());
    return services::exit_failure;
}

class generic_netlink {
  public:
    generic_netlink() = default;
    generic_netlink(const generic_netlink&) = delete;
    generic_netlink& operator=(const generic_netlink&) = delete;
    ~generic_netlink() {
        explicit_bzero(buffer_, sizeof buffer_);
        if (socket_)
            mnl_socket_close(socket_);
    }

    bool open() {
        socket_ = mnl_socket_open2(NETLINK_GENERIC, SOCK_CLOEXEC);
        return socket_ && mnl_socket_bind(socket_, 0, MNL_SOCKET_AUTOPID) == 0;
    }
    nlmsghdr* begin(uint16_t family, uint8_t command, uint8_t version) {
        nlmsghdr* message = mnl_nlmsg_put_header(buffer_);
        message->nlmsg_type = family;
        message->nlmsg_flags = NLM_F_REQUEST | NLM_F_ACK;
        message->nlmsg_seq = ++sequence_;
        auto* head = static_cast<genlmsghdr*>(mnl_nlmsg_put_extra_header(message, sizeof(genlmsghdr)));
        head->cmd = command;
        head->version = version;
        return message;
    }
    // Sends the message, and hands each answer to `handle` until the acknowledgement. False with errno.
    bool exchange(mnl_cb_t handle, void* context) {
        const auto* message = reinterpret_cast<const nlmsghdr*>(buffer_);
        bool sent = mnl_socket_sendto(socket_, message, message->nlmsg_len) >= 0;
        explicit_bzero(buffer_, sizeof buffer_);
        int result = sent ? MNL_CB_OK : MNL_CB_ERROR;
        while (result > MNL_CB_STOP) {
            ssize_t size = mnl_socket_recvfrom(socket_, buffer_, sizeof buffer_);
            result = size < 0 ? MNL_CB_ERROR
                              : mnl_cb_run(buffer_, static_cast<size_t>(size), sequence_,
                                           mnl_socket_get_portid(socket_), handle, context);
        }
        return result == MNL_CB_STOP;
    }

  private:
    mnl_socket* socket_ = nullptr;
    uint32_t sequence_ = 0;
    alignas(nlmsghdr) char buffer_[8192] = {};
};

int read_family(const nlattr* attribute, void* family) {
    if (mnl_attr_get_type(attribute) == CTRL_ATTR_FAMILY_ID && !mnl_attr_validate(attribute, MNL_TYPE_U16))
        *static_cast<uint16_t*>(family) = mnl_attr_get_u16(attribute);
    return MNL_CB_OK;
}

int handle_family(const nlmsghdr* message, void* family) {
    return mnl_attr_parse(message, sizeof(genlmsghdr), read_family, family);
}

// 0 when the kernel has no TIPC.
uint16_t find_tipc(generic_netlink& kernel) {
    uint16_t family = 0;
    mnl_attr_put_strz(kernel.begin(GENL_ID_CTRL, CTRL_CMD_GETFAMILY, 1), CTRL_ATTR_FAMILY_NAME,
                      TIPC_GENL_V2_NAME);
    return kernel.exchange(handle_family, &family) ? family : 0;
}

// A tipc_aead_key with its octets.
struct kernel_key {
    char algorithm[TIPC_AEAD_ALG_NAME];
    unsigned size;
    uint8_t octets[TIPC_AEAD_KEYLEN_MAX];

    ~kernel_key() { explicit_bzero(octets, sizeof octets); }
};
static_assert(offsetof(kernel_key, size) == offsetof(tipc_aead_key, keylen) &&
              offsetof(kernel_key, octets) == sizeof(tipc_aead_key));

int set_key(const services::tipc_key& key) {
    generic_netlink kernel;
    if (!kernel.open())
        return complain(std::string("netlink cannot be used: ") + strerror(errno));
    uint16_t family = find_tipc(kernel);
    if (!family)
        return complain("the kernel has no TIPC; modprobe tipc");

    kernel_key given = {};
    snprintf(given.algorithm, sizeof given.algorithm, "gcm(aes)");
    given.size = static_cast<unsigned>(key.size);
    memcpy(given.octets, key.octets, key.size);
    nlmsghdr* message = kernel.begin(family, TIPC_NL_KEY_SET, TIPC_GENL_V2_VERSION);
    nlattr* node = mnl_attr_nest_start(message, TIPC_NLA_NODE);
    mnl_attr_put(message, TIPC_NLA_NODE_KEY, offsetof(kernel_key, octets) + key.size, &given);
    mnl_attr_nest_end(message, node);
    if (!kernel.exchange(nullptr, nullptr))
        return complain(std::string("the kernel refuses the key: ") + strerror(errno) +
                        "; it needs CONFIG_TIPC_CRYPTO, the identity of the node, and CAP_NET_ADMIN");
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    services::command command = {
        "oka-tipc-key",
        "[--check] FILE",
        "oka-tipc-key gives the kernel the key of the TIPC cluster, from a file.",
        "\nExit status: 0 done; 1 the file has no key, or the kernel refuses it; 2 wrong command line.\n",
        {{"check", nullptr, "say whether the file has a key, and exit"}},
        1};
    if (auto answer = command.read(services::arguments_of(argc, argv)))
        return services::write_answer(*answer);
    if (command.operands.empty())
        return services::write_answer(command.refuse("one file is needed"));
    services::tipc_key key;
    std::string error;
    if (!services::read_tipc_key(command.operands[0].c_str(), key, error))
        return complain(error);
    return command.get("check").given() ? 0 : set_key(key);
}
