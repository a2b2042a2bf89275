/* What units and mailboxes may be called, and what the environment may say about messaging: for programs
 * that check a name or a configuration before messaging uses it. A contract, like oka.h; callable at any
 * time.
 */
#ifndef QEL_TAVU_PLATFORM_OKA_NAMES_H
#define QEL_TAVU_PLATFORM_OKA_NAMES_H

#include <stdbool.h>
#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Sizes of the longest names, NUL included. */
#define OKA_UNIT_PATH_SIZE 256u
#define OKA_MAILBOX_NAME_SIZE 80u
#define OKA_DIRECTORY_SIZE 3072u

/* The name of a mailbox: not empty, at most 79 characters, no "/" and no leading ".". */
bool oka_valid_mailbox_name(const char* name);

/* The path of a unit, as OKA_UNIT and a link's hunt path give it: one or more components separated by
 * single "/", each not empty and without a leading "."; at most 255 characters. */
bool oka_valid_unit_path(const char* path);

/* Whether OKA_TRANSPORTS may have this value: names of transports, each once, separated by blanks or commas;
 * "" chooses the default. When not, `wrong`, of `size` bytes, says what is wrong and what to write. */
bool oka_check_transports(const char* value, char* wrong, size_t size);

#define OKA_DEFAULT_DIRECTORY "/run/oka"

/* Whether OKA_DIR may have this value: the absolute path of a directory that is not the root; "" chooses
 * OKA_DEFAULT_DIRECTORY. When not, `wrong`, of `size` bytes, says what to write. */
bool oka_check_directory(const char* value, char* wrong, size_t size);

/* Whether OKA_PEERS may have this value: paths of units, separated by blanks or commas; "" allows all. When
 * not, `wrong`, of `size` bytes, says what is wrong and what to write. */
bool oka_check_peers(const char* value, char* wrong, size_t size);

#ifdef __cplusplus
}
#endif
#endif
