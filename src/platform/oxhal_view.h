/* The view of a SecY: what is installed on a port now, and what it has counted, for those who watch.
 *
 * A contract beside oxhal.h, for other processes than the one that programs the SecY. It reads and changes
 * nothing, needs no privilege, and can be asked at any time, also while the port's daemon stands still or
 * is dead: the answer is the hardware's, not the daemon's.
 *
 * No key can be had here, only its fingerprint: 16 octets that are the same wherever the key is installed,
 * different for every other key, and of no help to anyone who looks for the key.
 */
#ifndef QEL_TAVU_PLATFORM_OXHAL_VIEW_H
#define QEL_TAVU_PLATFORM_OXHAL_VIEW_H

#include <stdbool.h>
#include <stdint.h>

#include "platform/oxhal.h"

#ifdef __cplusplus
extern "C" {
#endif

enum {
    OXHAL_VIEW_FINGERPRINT_SIZE = 16,
    OXHAL_VIEW_ASSOCIATIONS = 4,
    /* What a SecY holds beyond these is left out. */
    OXHAL_VIEW_RECEIVE_CHANNELS = 8,
};

typedef struct oxhal_view_association {
    bool installed; /* the rest is zero otherwise */
    bool active;    /* of the transmit channel's: it is the one that encrypts */
    uint8_t fingerprint[OXHAL_VIEW_FINGERPRINT_SIZE];
    uint64_t next_packet_number; /* of a receive association: the lowest that is taken as new */
} oxhal_view_association;

/* Counters count from the making of their channel or SecY on, and begin anew with it. Their names are those
 * of IEEE 802.1AE-2018, 10.7.9 and 10.7.18. */
typedef struct oxhal_view_transmit_channel {
    oxhal_macsec_sci sci;
    oxhal_view_association associations[OXHAL_VIEW_ASSOCIATIONS]; /* by association number */
    uint64_t out_pkts_protected;                                  /* authenticated only */
    uint64_t out_pkts_encrypted;
    uint64_t out_octets_protected;
    uint64_t out_octets_encrypted;
} oxhal_view_transmit_channel;

typedef struct oxhal_view_receive_channel {
    oxhal_macsec_sci sci;
    bool active;
    oxhal_view_association associations[OXHAL_VIEW_ASSOCIATIONS];
    uint64_t in_pkts_ok;
    uint64_t in_pkts_unchecked;
    uint64_t in_pkts_delayed;
    uint64_t in_pkts_late;
    uint64_t in_pkts_invalid;   /* dropped or passed as the verification mode says: not authentic */
    uint64_t in_pkts_not_valid; /* dropped: not authentic */
    uint64_t in_pkts_not_using_sa;
    uint64_t in_pkts_unused_sa;
    uint64_t in_octets_validated;
    uint64_t in_octets_decrypted;
} oxhal_view_receive_channel;

typedef struct oxhal_view {
    bool enabled; /* there is a controlled port; the rest is zero otherwise */
    bool protect_frames;
    bool confidentiality; /* of what is protected; without it frames are signed, not encrypted */
    bool replay_protect;
    uint32_t replay_window;
    oxhal_macsec_validate_frames validate_frames;
    oxhal_view_transmit_channel transmit;
    uint32_t receive_channels;
    oxhal_view_receive_channel receive[OXHAL_VIEW_RECEIVE_CHANNELS];
    uint64_t out_pkts_untagged;
    uint64_t out_pkts_too_long;
    uint64_t in_pkts_untagged;
    uint64_t in_pkts_no_tag;
    uint64_t in_pkts_bad_tag;
    uint64_t in_pkts_unknown_sci;
    uint64_t in_pkts_no_sci;
    uint64_t in_pkts_overrun;
} oxhal_view;

/* What the SecY of the virtual port of that name ("DiPort_A1") is like now. Returns 0, or an error number:
 * ENOENT when this unit has no such port, ENODEV when its SecY cannot be asked since there is no interface
 * or no driver. *view is all zero then. */
int oxhal_view_get(const char* port_name, oxhal_view* view);

#ifdef __cplusplus
}
#endif
#endif
