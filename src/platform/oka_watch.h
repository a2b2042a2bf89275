/* A readable descriptor turned into a message, for the services around the daemon that wait for more
 * than messages: netlink, files, signals. The daemon does not use it.
 */
#ifndef QEL_TAVU_PLATFORM_OKA_WATCH_H
#define QEL_TAVU_PLATFORM_OKA_WATCH_H

#include "platform/oka.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Identifies a watch; 0 means none. */
typedef uint32_t oka_watch_ref;

/* While `fd` is readable (or has failed), a message of 4 bytes with that number is delivered to `mailbox`
 * with OKA_MAILBOX_NONE as its sender. At most one such message is outstanding: the watch looks at the
 * descriptor again in the first oka_receive after the one that returned it, so a reader that
 * leaves something unread is told again. The descriptor stays the caller's, who ends the watch before closing
 * it; it also ends with the mailbox. Returns 0, after reporting why, when the descriptor cannot be watched.
 */
oka_watch_ref oka_watch(int fd, oka_mailbox mailbox, uint32_t number);

/* Ends a watch; its message is not delivered afterwards. 0 and unknown references are ignored. */
void oka_unwatch(oka_watch_ref watch);

#ifdef __cplusplus
}
#endif
#endif
