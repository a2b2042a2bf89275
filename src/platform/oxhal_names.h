/* The names of the hardware layer's ports, and the values that its environment variables may have, for
 * programs that check a configuration before the layer uses it. A contract, like oxhal.h. Its functions can
 * be called at any time.
 */
#ifndef QEL_TAVU_PLATFORM_OXHAL_NAMES_H
#define QEL_TAVU_PLATFORM_OXHAL_NAMES_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* The ports of a unit. The hardware layer calls them "DiPort_A1" and so on. All other names of ports are made
 * from this list. */
#define OXHAL_PORTS_OF_UNITS(X) X(A1) X(B1) X(A2) X(B2)

enum { OXHAL_PORTS_MAX = 16, OXHAL_INTERFACE_NAME_SIZE = 16 /* the kernel's, NUL included */ };

/* One word of OXHAL_PORTS, "DiPort_A1=eth1:sec-a1". Texts end in NUL. */
typedef struct oxhal_port_setting {
    char name[64];
    char common_port[OXHAL_INTERFACE_NAME_SIZE];     /* the cable */
    char controlled_port[OXHAL_INTERFACE_NAME_SIZE]; /* the MACsec interface that is made on it */
} oxhal_port_setting;

typedef struct oxhal_port_settings {
    uint32_t count;
    oxhal_port_setting ports[OXHAL_PORTS_MAX];
} oxhal_port_settings;

/* Reads a value of OXHAL_PORTS: words separated by blanks. When it is wrong, returns false and writes into
 * `wrong`, of `size` bytes, what is wrong and what to write; *settings is not to be used then. */
bool oxhal_read_ports(const char* value, oxhal_port_settings* settings, char* wrong, size_t size);

/* Whether an interface can have this name. */
bool oxhal_valid_interface_name(const char* name);

/* Whether OXHAL_DRIVER may have this value; "" chooses the default. When not, writes into `wrong` which
 * drivers there are. */
bool oxhal_check_driver(const char* value, char* wrong, size_t size);

#ifdef __cplusplus
}
#endif
#endif
