/* The cipher suites of IEEE 802.1AE: for each its number in the MKA protocol, its name, the octets of its
 * key, and whether the SecYs of this system support it. All other lists of cipher suites are made from this
 * one.
 */
#ifndef QEL_TAVU_PLATFORM_OXHAL_CIPHERS_H
#define QEL_TAVU_PLATFORM_OXHAL_CIPHERS_H

#define OXHAL_CIPHER_SUITES(X)                                                                               \
    X(1, GCM_AES_128, 16, true)                                                                              \
    X(2, GCM_AES_256, 32, false)                                                                             \
    X(3, GCM_AES_XPN_128, 16, false)                                                                         \
    X(4, GCM_AES_XPN_256, 32, false)

/* Octets of the longest key. */
enum { OXHAL_KEY_SIZE_MAX = 32 };

#endif
