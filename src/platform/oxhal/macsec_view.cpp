// The view of a SecY as the kernel gives it: the dump of the generic netlink family "macsec", which anybody
// may ask for.
#include "platform/oxhal/macsec_view.h"

#include <cerrno>
#include <linux/genetlink.h>
#include <linux/if_link.h>
#include <linux/if_macsec.h>
#include <net/if.h>

#include "platform/oxhal/macsec_kernel.h"

namespace oxhal::kernel {

namespace {

struct wanted_view {
    unsigned index;
    oxhal_view* view;
};

void read_association(const nlattr* nest, oxhal_view_association (&into)[OXHAL_VIEW_ASSOCIATIONS]) {
    attributes<MACSEC_SA_ATTR_MAX + 1> facts(nest);
    oxhal_view_association& one = into[facts.u8(MACSEC_SA_ATTR_AN) % OXHAL_VIEW_ASSOCIATIONS];
    one.installed = true;
    one.active = facts.u8(MACSEC_SA_ATTR_ACTIVE);
    facts.copy(MACSEC_SA_ATTR_KEYID, one.fingerprint);
    // 32 bits, or 64 of a cipher suite with extended packet numbers.
    if (!facts.copy(MACSEC_SA_ATTR_PN, one.next_packet_number))
        one.next_packet_number = facts.u32(MACSEC_SA_ATTR_PN);
}

void read_transmit_channel(const nlattr* associations, const nlattr* counters, uint8_t encoding_an,
                           oxhal_view_transmit_channel& into) {
    for_each_nested(associations, [&](const nlattr* each) { read_association(each, into.associations); });
    for (unsigned an = 0; an < OXHAL_VIEW_ASSOCIATIONS; ++an)
        into.associations[an].active &= an == encoding_an;
    attributes<MACSEC_TXSC_STATS_ATTR_MAX + 1> counted(counters);
    counted.copy(MACSEC_TXSC_STATS_ATTR_OUT_PKTS_PROTECTED, into.out_pkts_protected);
    counted.copy(MACSEC_TXSC_STATS_ATTR_OUT_PKTS_ENCRYPTED, into.out_pkts_encrypted);
    counted.copy(MACSEC_TXSC_STATS_ATTR_OUT_OCTETS_PROTECTED, into.out_octets_protected);
    counted.copy(MACSEC_TXSC_STATS_ATTR_OUT_OCTETS_ENCRYPTED, into.out_octets_encrypted);
}

void read_receive_channel(const nlattr* nest, oxhal_view_receive_channel& into) {
    attributes<MACSEC_RXSC_ATTR_MAX + 1> facts(nest);
    facts.copy(MACSEC_RXSC_ATTR_SCI, into.sci);
    into.active = facts.u8(MACSEC_RXSC_ATTR_ACTIVE);
    for_each_nested(facts[MACSEC_RXSC_ATTR_SA_LIST],
                    [&](const nlattr* each) { read_association(each, into.associations); });
    attributes<MACSEC_RXSC_STATS_ATTR_MAX + 1> counted(facts[MACSEC_RXSC_ATTR_STATS]);
    counted.copy(MACSEC_RXSC_STATS_ATTR_IN_PKTS_OK, into.in_pkts_ok);
    counted.copy(MACSEC_RXSC_STATS_ATTR_IN_PKTS_UNCHECKED, into.in_pkts_unchecked);
    counted.copy(MACSEC_RXSC_STATS_ATTR_IN_PKTS_DELAYED, into.in_pkts_delayed);
    counted.copy(MACSEC_RXSC_STATS_ATTR_IN_PKTS_LATE, into.in_pkts_late);
    counted.copy(MACSEC_RXSC_STATS_ATTR_IN_PKTS_INVALID, into.in_pkts_invalid);
    counted.copy(MACSEC_RXSC_STATS_ATTR_IN_PKTS_NOT_VALID, into.in_pkts_not_valid);
    counted.copy(MACSEC_RXSC_STATS_ATTR_IN_OCTETS_VALIDATED, into.in_octets_validated);
    counted.copy(MACSEC_RXSC_STATS_ATTR_IN_OCTETS_DECRYPTED, into.in_octets_decrypted);
    // The kernel counts these two with 32 bits a processor, and hands them out with 64.
    counted.copy(MACSEC_RXSC_STATS_ATTR_IN_PKTS_NOT_USING_SA, into.in_pkts_not_using_sa);
    counted.copy(MACSEC_RXSC_STATS_ATTR_IN_PKTS_UNUSED_SA, into.in_pkts_unused_sa);
}

void read_counters(const nlattr* nest, oxhal_view& into) {
    attributes<MACSEC_SECY_STATS_ATTR_MAX + 1> counted(nest);
    counted.copy(MACSEC_SECY_STATS_ATTR_OUT_PKTS_UNTAGGED, into.out_pkts_untagged);
    counted.copy(MACSEC_SECY_STATS_ATTR_OUT_PKTS_TOO_LONG, into.out_pkts_too_long);
    counted.copy(MACSEC_SECY_STATS_ATTR_IN_PKTS_UNTAGGED, into.in_pkts_untagged);
    counted.copy(MACSEC_SECY_STATS_ATTR_IN_PKTS_NO_TAG, into.in_pkts_no_tag);
    counted.copy(MACSEC_SECY_STATS_ATTR_IN_PKTS_BAD_TAG, into.in_pkts_bad_tag);
    counted.copy(MACSEC_SECY_STATS_ATTR_IN_PKTS_UNKNOWN_SCI, into.in_pkts_unknown_sci);
    counted.copy(MACSEC_SECY_STATS_ATTR_IN_PKTS_NO_SCI, into.in_pkts_no_sci);
    counted.copy(MACSEC_SECY_STATS_ATTR_IN_PKTS_OVERRUN, into.in_pkts_overrun);
}

oxhal_macsec_validate_frames validation_of(uint8_t kernels) {
    switch (kernels) {
    case MACSEC_VALIDATE_STRICT:
        return OXHAL_MACSEC_VALIDATE_FRAMES_STRICT;
    case MACSEC_VALIDATE_CHECK:
        return OXHAL_MACSEC_VALIDATE_FRAMES_CHECK;
    default:
        return OXHAL_MACSEC_VALIDATE_FRAMES_DISABLED;
    }
}

void read_secy(const nlmsghdr* message, void* context) {
    auto& wanted = *static_cast<wanted_view*>(context);
    attributes<MACSEC_ATTR_MAX + 1> facts(message, sizeof(genlmsghdr));
    if (facts.u32(MACSEC_ATTR_IFINDEX) != wanted.index)
        return;
    oxhal_view& view = *wanted.view;
    attributes<MACSEC_SECY_ATTR_MAX + 1> secy(facts[MACSEC_ATTR_SECY]);
    view.enabled = true;
    view.protect_frames = secy.u8(MACSEC_SECY_ATTR_PROTECT);
    view.confidentiality = secy.u8(MACSEC_SECY_ATTR_ENCRYPT);
    view.replay_protect = secy.u8(MACSEC_SECY_ATTR_REPLAY);
    view.replay_window = secy.u32(MACSEC_SECY_ATTR_WINDOW);
    view.validate_frames = validation_of(secy.u8(MACSEC_SECY_ATTR_VALIDATE));
    secy.copy(MACSEC_SECY_ATTR_SCI, view.transmit.sci);
    read_transmit_channel(facts[MACSEC_ATTR_TXSA_LIST], facts[MACSEC_ATTR_TXSC_STATS],
                          secy.u8(MACSEC_SECY_ATTR_ENCODING_SA), view.transmit);
    for_each_nested(facts[MACSEC_ATTR_RXSC_LIST], [&](const nlattr* each) {
        if (view.receive_channels < OXHAL_VIEW_RECEIVE_CHANNELS)
            read_receive_channel(each, view.receive[view.receive_channels++]);
    });
    read_counters(facts[MACSEC_ATTR_SECY_STATS], view);
}

// Once; the kernel module may come later.
int open_sockets() {
    static bool opened = false;
    if (!opened) {
        if (int error = open())
            return error;
        opened = true;
    }
    return find_family();
}

} // namespace

int read_view(const char* controlled_port, oxhal_view& view) {
    unsigned index = if_nametoindex(controlled_port);
    if (!index)
        return ENODEV;
    if (int error = open_sockets())
        return error == ENOENT ? ENODEV : error;
    wanted_view wanted = {.index = index, .view = &view};
    return dump_secys(read_secy, &wanted);
}

} // namespace oxhal::kernel
