#include "platform/oxhal/macsec_kernel.h"

#include <cerrno>
#include <cstring>
#include <linux/genetlink.h>
#include <linux/if_link.h>
#include <linux/if_macsec.h>
#include <linux/rtnetlink.h>

#include "platform/oxhal/fingerprint.h"

namespace oxhal::kernel {
namespace {

struct {
    netlink route;
    netlink generic;
    uint16_t family; // the number of "macsec" among the generic families
} sockets;

nlmsghdr* begin_link(uint16_t type, uint16_t flags, unsigned index) {
    nlmsghdr* message = sockets.route.begin(type, flags);
    auto* head = static_cast<ifinfomsg*>(mnl_nlmsg_put_extra_header(message, sizeof(ifinfomsg)));
    head->ifi_family = AF_UNSPEC;
    head->ifi_index = static_cast<int>(index);
    return message;
}

nlmsghdr* begin_generic(uint16_t family, uint8_t command, uint8_t version, uint16_t flags) {
    nlmsghdr* message = sockets.generic.begin(family, flags);
    auto* head = static_cast<genlmsghdr*>(mnl_nlmsg_put_extra_header(message, sizeof(genlmsghdr)));
    head->cmd = command;
    head->version = version;
    return message;
}

void read_interface(const nlmsghdr* message, void* context) {
    auto& found = *static_cast<interface*>(context);
    if (message->nlmsg_type != RTM_NEWLINK || mnl_nlmsg_get_payload_len(message) < sizeof(ifinfomsg))
        return;
    found.index =
        static_cast<unsigned>(static_cast<const ifinfomsg*>(mnl_nlmsg_get_payload(message))->ifi_index);
    attributes<IFLA_LINKINFO + 1> facts(message, sizeof(ifinfomsg));
    found.lower = facts.u32(IFLA_LINK);
    facts.copy(IFLA_ADDRESS, found.address);
    attributes<IFLA_INFO_DATA + 1> info(facts[IFLA_LINKINFO]);
    char kind[sizeof "macsec"] = "";
    found.is_macsec = info.copy(IFLA_INFO_KIND, kind) && !memcmp(kind, "macsec", sizeof kind);
    if (found.is_macsec)
        attributes<IFLA_MACSEC_SCI + 1>(info[IFLA_INFO_DATA]).copy(IFLA_MACSEC_SCI, found.sci);
}

uint8_t kernel_validation(oxhal_macsec_validate_frames mode) {
    switch (mode) {
    case OXHAL_MACSEC_VALIDATE_FRAMES_DISABLED:
        return MACSEC_VALIDATE_DISABLED;
    case OXHAL_MACSEC_VALIDATE_FRAMES_STRICT:
        return MACSEC_VALIDATE_STRICT;
    case OXHAL_MACSEC_VALIDATE_FRAMES_CHECK:
        return MACSEC_VALIDATE_CHECK;
    }
    return MACSEC_VALIDATE_STRICT;
}

// All at once: the kernel takes replay protection only together with its window, and looks at ES, SCB and
// SCI together. The SCI, when always included, stands for the other two (IEEE 802.1AE-2018, 10.5.3).
void put_settings(nlmsghdr* message, const settings& wanted) {
    bool implicit = !wanted.always_include_sci;
    mnl_attr_put_u8(message, IFLA_MACSEC_PROTECT, wanted.protect_frames);
    mnl_attr_put_u8(message, IFLA_MACSEC_VALIDATION, kernel_validation(wanted.validate_frames));
    mnl_attr_put_u8(message, IFLA_MACSEC_REPLAY_PROTECT, wanted.replay_protect);
    mnl_attr_put_u32(message, IFLA_MACSEC_WINDOW, wanted.replay_window);
    mnl_attr_put_u8(message, IFLA_MACSEC_INC_SCI, wanted.always_include_sci);
    mnl_attr_put_u8(message, IFLA_MACSEC_ES, implicit && wanted.es);
    mnl_attr_put_u8(message, IFLA_MACSEC_SCB, implicit && wanted.scb);
}

// Runs a request about a MACsec interface whose attributes `put` writes.
template<class Put>
int transact_link(nlmsghdr* message, Put put) {
    nlattr* info = mnl_attr_nest_start(message, IFLA_LINKINFO);
    mnl_attr_put_strz(message, IFLA_INFO_KIND, "macsec");
    nlattr* data = mnl_attr_nest_start(message, IFLA_INFO_DATA);
    put(message);
    mnl_attr_nest_end(message, data);
    mnl_attr_nest_end(message, info);
    return sockets.route.transact();
}

nlmsghdr* begin_macsec(uint8_t command, unsigned index) {
    nlmsghdr* message = begin_generic(sockets.family, command, 0, 0);
    mnl_attr_put_u32(message, MACSEC_ATTR_IFINDEX, index);
    return message;
}

int transact_channel(unsigned index, uint8_t command, const oxhal_macsec_sci& sci) {
    nlmsghdr* message = begin_macsec(command, index);
    nlattr* nest = mnl_attr_nest_start(message, MACSEC_ATTR_RXSC_CONFIG);
    mnl_attr_put(message, MACSEC_RXSC_ATTR_SCI, sizeof sci, &sci);
    if (command == MACSEC_CMD_ADD_RXSC)
        mnl_attr_put_u8(message, MACSEC_RXSC_ATTR_ACTIVE, 1);
    mnl_attr_nest_end(message, nest);
    return sockets.generic.transact();
}

// Runs a request about an association; `put` writes what the command needs beside its number.
template<class Put>
int transact_association(unsigned index, uint8_t transmit_command, uint8_t receive_command,
                         const oxhal_macsec_sci* sci, uint8_t an, Put put) {
    nlmsghdr* message = begin_macsec(sci ? receive_command : transmit_command, index);
    if (sci) {
        nlattr* channel = mnl_attr_nest_start(message, MACSEC_ATTR_RXSC_CONFIG);
        mnl_attr_put(message, MACSEC_RXSC_ATTR_SCI, sizeof *sci, sci);
        mnl_attr_nest_end(message, channel);
    }
    nlattr* nest = mnl_attr_nest_start(message, MACSEC_ATTR_SA_CONFIG);
    mnl_attr_put_u8(message, MACSEC_SA_ATTR_AN, an);
    put(message);
    mnl_attr_nest_end(message, nest);
    return sockets.generic.transact();
}

void read_associations(const nlattr* list, uint8_t& installed, uint8_t& active) {
    for_each_nested(list, [&](const nlattr* each) {
        attributes<MACSEC_SA_ATTR_ACTIVE + 1> one(each);
        auto bit = static_cast<uint8_t>(1u << (one.u8(MACSEC_SA_ATTR_AN) & 3));
        installed |= bit;
        if (one.u8(MACSEC_SA_ATTR_ACTIVE))
            active |= bit;
    });
}

void read_associations_of_secy(const nlmsghdr* message, void* context) {
    auto& found = *static_cast<contents*>(context);
    attributes<MACSEC_ATTR_RXSC_LIST + 1> facts(message, sizeof(genlmsghdr));
    if (facts.u32(MACSEC_ATTR_IFINDEX) != found.index)
        return;
    found.encoding_an = attributes<MACSEC_SECY_ATTR_ENCODING_SA + 1>(facts[MACSEC_ATTR_SECY])
                            .u8(MACSEC_SECY_ATTR_ENCODING_SA);
    read_associations(facts[MACSEC_ATTR_TXSA_LIST], found.transmit_installed, found.transmit_active);
    for_each_nested(facts[MACSEC_ATTR_RXSC_LIST], [&](const nlattr* each) {
        attributes<MACSEC_RXSC_ATTR_SA_LIST + 1> one(each);
        if (found.receive_channels == max_channels)
            return;
        auto& next = found.receive[found.receive_channels];
        if (!one.copy(MACSEC_RXSC_ATTR_SCI, next.sci))
            return;
        ++found.receive_channels;
        uint8_t installed = 0;
        read_associations(one[MACSEC_RXSC_ATTR_SA_LIST], installed, next.active);
    });
}

void read_family(const nlmsghdr* message, void*) {
    attributes<CTRL_ATTR_FAMILY_ID + 1>(message, sizeof(genlmsghdr))
        .copy(CTRL_ATTR_FAMILY_ID, sockets.family);
}

} // namespace

netlink& route() {
    return sockets.route;
}
netlink& generic() {
    return sockets.generic;
}

int open() {
    int error = sockets.route.open(NETLINK_ROUTE);
    return error ? error : sockets.generic.open(NETLINK_GENERIC);
}

int find_family() {
    sockets.family = 0;
    nlmsghdr* message = begin_generic(GENL_ID_CTRL, CTRL_CMD_GETFAMILY, 1, 0);
    mnl_attr_put_strz(message, CTRL_ATTR_FAMILY_NAME, "macsec");
    int error = sockets.generic.transact(read_family);
    return !error && !sockets.family ? ENOENT : error;
}

int find_interface(const char* name, interface& found) {
    found = {};
    mnl_attr_put_strz(begin_link(RTM_GETLINK, 0, 0), IFLA_IFNAME, name);
    int error = sockets.route.transact(read_interface, &found);
    return !error && !found.index ? ENODEV : error;
}

int create_interface(const char* name, unsigned lower, const oxhal_macsec_sci& sci, const settings& wanted) {
    nlmsghdr* message = begin_link(RTM_NEWLINK, NLM_F_CREATE | NLM_F_EXCL, 0);
    mnl_attr_put_strz(message, IFLA_IFNAME, name);
    mnl_attr_put_u32(message, IFLA_LINK, lower);
    return transact_link(message, [&](nlmsghdr* data) {
        mnl_attr_put(data, IFLA_MACSEC_SCI, sizeof sci, &sci);
        put_settings(data, wanted);
    });
}

int delete_interface(unsigned index) {
    begin_link(RTM_DELLINK, 0, index);
    return sockets.route.transact();
}

int change_settings(unsigned index, const settings& wanted) {
    return transact_link(begin_link(RTM_NEWLINK, 0, index),
                         [&](nlmsghdr* data) { put_settings(data, wanted); });
}

int encrypt_with(unsigned index, uint8_t an, bool confidentiality) {
    return transact_link(begin_link(RTM_NEWLINK, 0, index), [&](nlmsghdr* data) {
        mnl_attr_put_u8(data, IFLA_MACSEC_ENCRYPT, confidentiality);
        mnl_attr_put_u8(data, IFLA_MACSEC_ENCODING_SA, an);
    });
}

int create_receive_channel(unsigned index, const oxhal_macsec_sci& sci) {
    return transact_channel(index, MACSEC_CMD_ADD_RXSC, sci);
}

int delete_receive_channel(unsigned index, const oxhal_macsec_sci& sci) {
    return transact_channel(index, MACSEC_CMD_DEL_RXSC, sci);
}

int create_association(unsigned index, const oxhal_macsec_sci* sci, uint8_t an, uint32_t packet_number,
                       const oxhal_macsec_key& key) {
    // The kernel wants a name for the key, which it shows to everybody: what one end sends with is recognised
    // by it at the other.
    static_assert(MACSEC_KEYID_LEN == fingerprint_size);
    uint8_t key_id[MACSEC_KEYID_LEN];
    fingerprint_of(key.octets, key.length, key_id);
    return transact_association(index, MACSEC_CMD_ADD_TXSA, MACSEC_CMD_ADD_RXSA, sci, an,
                                [&](nlmsghdr* message) {
                                    mnl_attr_put_u32(message, MACSEC_SA_ATTR_PN, packet_number);
                                    mnl_attr_put_u8(message, MACSEC_SA_ATTR_ACTIVE, 0);
                                    mnl_attr_put(message, MACSEC_SA_ATTR_KEYID, sizeof key_id, key_id);
                                    mnl_attr_put(message, MACSEC_SA_ATTR_KEY, key.length, key.octets);
                                });
}

int activate_association(unsigned index, const oxhal_macsec_sci* sci, uint8_t an, bool active) {
    return transact_association(
        index, MACSEC_CMD_UPD_TXSA, MACSEC_CMD_UPD_RXSA, sci, an,
        [&](nlmsghdr* message) { mnl_attr_put_u8(message, MACSEC_SA_ATTR_ACTIVE, active); });
}

int delete_association(unsigned index, const oxhal_macsec_sci* sci, uint8_t an) {
    return transact_association(index, MACSEC_CMD_DEL_TXSA, MACSEC_CMD_DEL_RXSA, sci, an, [](nlmsghdr*) {});
}

int read_contents(unsigned index, contents& found) {
    found = {};
    found.index = index;
    return dump_secys(read_associations_of_secy, &found);
}

int dump_secys(netlink::answer_handler on_answer, void* context) {
    begin_generic(sockets.family, MACSEC_CMD_GET_TXSC, 0, NLM_F_DUMP);
    return sockets.generic.transact(on_answer, context);
}

} // namespace oxhal::kernel
