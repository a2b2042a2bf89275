// Gives the kernel the key of the TIPC cluster. The key goes from the file to the kernel within this process:
// on a command line every user of the machine could read it.
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <libmnl/libmnl.h>
#include <linux/genetlink.h>
#include <linux/tipc.h>
#include <linux/tipc_netlink.h>
#include <string>
#include <vector>

#include "services/common/options.h"
#include "services/common/tipc_key.h"

namespace {

constexpr int exit_failure = 1;

int complain(const std::string& what) {
    fprintf(stderr, "oka-tipc-key: %s\n", what.c_str());
    return exit_failure;
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
    // Sends what was begun, and hears the answers until the acknowledgement. False with errno.
    bool talk(mnl_cb_t heard, void* context) {
        const auto* message = reinterpret_cast<const nlmsghdr*>(buffer_);
        bool sent = mnl_socket_sendto(socket_, message, message->nlmsg_len) >= 0;
        explicit_bzero(buffer_, sizeof buffer_);
        int going = sent ? MNL_CB_OK : MNL_CB_ERROR;
        while (going > MNL_CB_STOP) {
            ssize_t size = mnl_socket_recvfrom(socket_, buffer_, sizeof buffer_);
            going = size < 0 ? MNL_CB_ERROR
                             : mnl_cb_run(buffer_, static_cast<size_t>(size), sequence_,
                                          mnl_socket_get_portid(socket_), heard, context);
        }
        return going == MNL_CB_STOP;
    }

  private:
    mnl_socket* socket_ = nullptr;
    uint32_t sequence_ = 0;
    alignas(nlmsghdr) char buffer_[8192] = {};
};

int take_family(const nlattr* attribute, void* family) {
    if (mnl_attr_get_type(attribute) == CTRL_ATTR_FAMILY_ID && !mnl_attr_validate(attribute, MNL_TYPE_U16))
        *static_cast<uint16_t*>(family) = mnl_attr_get_u16(attribute);
    return MNL_CB_OK;
}

int hear_family(const nlmsghdr* message, void* family) {
    return mnl_attr_parse(message, sizeof(genlmsghdr), take_family, family);
}

// 0 when the kernel has no TIPC.
uint16_t find_tipc(generic_netlink& kernel) {
    uint16_t family = 0;
    mnl_attr_put_strz(kernel.begin(GENL_ID_CTRL, CTRL_CMD_GETFAMILY, 1), CTRL_ATTR_FAMILY_NAME,
                      TIPC_GENL_V2_NAME);
    return kernel.talk(hear_family, &family) ? family : 0;
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
        return complain(std::string("netlink is not to be had: ") + strerror(errno));
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
    if (!kernel.talk(nullptr, nullptr))
        return complain(std::string("the kernel takes no key: ") + strerror(errno) +
                        "; it needs CONFIG_TIPC_CRYPTO, the identity of the node, and CAP_NET_ADMIN");
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    constexpr services::program_help help = {
        "oka-tipc-key", "[--check] FILE",
        "oka-tipc-key gives the kernel the key of the TIPC cluster, from a file.",
        "\nExit status: 0 done; 1 the file holds no key, or the kernel takes none; 2 wrong command line.\n"};
    std::vector<services::option> options = {
        {"check", nullptr, "say whether the file holds a key, and exit"},
    };
    std::vector<std::string> operands;
    std::vector<const char*> arguments(argv + (argc > 0), argv + argc);
    if (auto answer = services::read_options(help, arguments, options, operands))
        return services::give(*answer);
    if (operands.size() != 1)
        return services::give(services::refusal(help.program, "one file is needed"));
    services::tipc_key key;
    std::string error;
    if (!services::read_tipc_key(operands[0].c_str(), key, error))
        return complain(error);
    return options[0].given() ? 0 : set_key(key);
}
