/* The MACsec hardware layer: the SecY (IEEE 802.1AE-2018, clause 10) of every virtual port, and keys.
 *
 * A contract: the daemon programs SecYs only through these operations. Every operation that returns an
 * int returns 0 for success; any other value is an error number that the daemon prints and does not
 * interpret, and then nothing was changed (but see *_delete_all). Calls are synchronous, made one at a
 * time from one thread, and MUST NOT block for longer than the hardware takes. An implementation is
 * right when it passes the hardware contract suite in tests/.
 *
 * "port" is the handle of a virtual port. A SecY has one controlled port over its common port; frames
 * that it protects leave by the common port encrypted, frames that it validates arrive by the
 * controlled one.
 */
#ifndef QEL_TAVU_PLATFORM_OXHAL_H
#define QEL_TAVU_PLATFORM_OXHAL_H

#include <stdbool.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* One virtual port as the hardware layer lists it; 108 bytes. Only handle and name are used. */
typedef struct oxhal_vport {
    uint32_t handle;
    uint32_t reserved_1;
    char name[64]; /* NUL-terminated, for example "DiPort_A1" */
    uint32_t reserved_2[9];
} oxhal_vport;

/* A secure channel identifier: a MAC address (6 octets), then a port identifier (2 octets, the high
 * one first). Passed by value. */
typedef struct oxhal_macsec_sci {
    uint8_t octets[8];
} oxhal_macsec_sci;

/* A secure association key, owned by the caller. The layer hands it to the hardware and MUST NOT keep a
 * copy, nor print it. */
typedef struct oxhal_macsec_key {
    const uint8_t* octets;
    uint32_t length; /* in octets: 16 for GCM-AES-128 */
} oxhal_macsec_key;

enum { OXHAL_MACSEC_STANDARD_IEEE_802_1AE_2006 = 0 };

/* What a SecY can do under one standard; 88 bytes. */
typedef struct oxhal_macsec_port_cap {
    uint32_t standard;
    uint8_t replay_protection_supported;
    uint8_t confidentiality_supported;
    uint8_t confidentiality_offset_supported;
    uint8_t reserved_1;
    uint32_t num_of_rx_scs;
    uint32_t reserved_2;
    uint32_t num_of_rx_sas;
    uint32_t num_of_additional_ciphers;
    uint32_t reserved_3[16];
} oxhal_macsec_port_cap;

/* A capability list: `count` entries, of which the first is declared, follow the count. Owned by the
 * layer, valid until the process ends. */
typedef struct oxhal_macsec_port_cap_list {
    uint32_t count;
    oxhal_macsec_port_cap entries[1];
} oxhal_macsec_port_cap_list;

/* The verification mode of received frames (validateFrames, IEEE 802.1AE-2018, 10.7.8). */
typedef enum oxhal_macsec_validate_frames {
    OXHAL_MACSEC_VALIDATE_FRAMES_DISABLED = 0,
    OXHAL_MACSEC_VALIDATE_FRAMES_STRICT = 1,
    OXHAL_MACSEC_VALIDATE_FRAMES_CHECK = 2,
} oxhal_macsec_validate_frames;

/* Brings the library up, once per process. An error is reported with its cause and remedy. */
int oxhal_init(void);

/* Fills *vport with the virtual port of that index, counted from 0; an error when there is none. */
int oxhal_vport_iterate(uint32_t index, oxhal_vport* vport);

/* `length` octets from a cryptographic random number generator into `key`. */
int oxhal_macsec_generate_key(uint32_t length, uint8_t* key);

/* Prepares the MACsec block, once per process, after oxhal_init. */
int oxhal_macsec_init(void);

/* Points *list at the port's capability list; may leave it NULL. */
int oxhal_macsec_port_cap_get(uint32_t port, const oxhal_macsec_port_cap_list** list);

/* true puts the controlled port on the common port. Whatever channels an earlier process left in the
 * SecY, or this one, are gone when it returns. Without a controlled port there are no channels; settings
 * are taken all the same, as is *_delete_all, and MUST hold when the controlled port comes. */
int oxhal_macsec_enable_set(uint32_t port, bool enable);

/* protectFrames: true, transmitted frames are encrypted with the transmit SA in use; false, they leave
 * unprotected. */
int oxhal_macsec_protect_frames_set2(uint32_t port, bool protect);
int oxhal_macsec_validate_frames_set2(uint32_t port, oxhal_macsec_validate_frames mode);
int oxhal_macsec_replay_protect_set2(uint32_t port, bool enable);
int oxhal_macsec_replay_window_set(uint32_t port, uint32_t window);
/* The ES and SCB bits of the SecTAG, and whether the SCI is always in it. Only without the SCI do the bits
 * count, and then setting both is an error (IEEE 802.1AE-2018, 9.5 and 10.5.3). */
int oxhal_macsec_es_set(uint32_t port, bool enable);
int oxhal_macsec_scb_set(uint32_t port, bool enable);
int oxhal_macsec_always_include_sci_set(uint32_t port, bool enable);

/* Channels. A transmit channel's SCI is the port's own, a receive channel's the peer's. A channel is
 * deleted only when it has no associations left; *_delete_all deletes every channel of its direction
 * with its associations, and succeeds when there is none. What it cannot delete MUST NOT keep it from
 * deleting the rest; then it returns the first error. */
int oxhal_macsec_transmit_sc_create(uint32_t port, oxhal_macsec_sci sci);
int oxhal_macsec_receive_sc_create(uint32_t port, oxhal_macsec_sci sci);
int oxhal_macsec_transmit_sc_delete(uint32_t port, oxhal_macsec_sci sci);
int oxhal_macsec_receive_sc_delete(uint32_t port, oxhal_macsec_sci sci);
int oxhal_macsec_transmit_sc_delete_all(uint32_t port);
int oxhal_macsec_receive_sc_delete_all(uint32_t port);

/* Associations, created under an existing channel with an association number (0 to 3) that the channel
 * does not hold yet and a packet number from 1 on, and not in use until enabled. Enabling a transmit
 * association makes it the one that encrypts; the one before stays installed, not in use, until it is
 * deleted. Without confidentiality frames are signed, not encrypted. */
int oxhal_macsec_transmit_sa_create(uint32_t port, oxhal_macsec_sci sci, uint8_t an,
                                    uint32_t next_packet_number, bool confidentiality, oxhal_macsec_key key);
int oxhal_macsec_receive_sa_create2(uint32_t port, oxhal_macsec_sci sci, uint8_t an,
                                    uint32_t lowest_packet_number, oxhal_macsec_key key);
int oxhal_macsec_transmit_sa_enable(uint32_t port, oxhal_macsec_sci sci, uint8_t an, bool enable);
int oxhal_macsec_receive_sa_enable(uint32_t port, oxhal_macsec_sci sci, uint8_t an, bool enable);
int oxhal_macsec_transmit_sa_delete(uint32_t port, oxhal_macsec_sci sci, uint8_t an);
int oxhal_macsec_receive_sa_delete(uint32_t port, oxhal_macsec_sci sci, uint8_t an);
int oxhal_macsec_transmit_sa_in_use_get(uint32_t port, oxhal_macsec_sci sci, uint8_t an, bool* in_use);
int oxhal_macsec_receive_sa_in_use_get(uint32_t port, oxhal_macsec_sci sci, uint8_t an, bool* in_use);

#ifdef __cplusplus
}
#endif
#endif
