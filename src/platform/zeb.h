/* The trace service.
 *
 * A contract: records go to a sink of the platform's choice, and whether a record is wanted is one bit
 * test in a per-thread mask, so that a trace that is not wanted costs a load and a branch. Callers test
 * the bit before they format anything.
 */
#ifndef QEL_TAVU_PLATFORM_ZEB_H
#define QEL_TAVU_PLATFORM_ZEB_H

#include <stdbool.h>
#include <stdint.h>

#include "platform/oka.h"

#ifdef __cplusplus
extern "C" {
#endif

/* A trace group is the number of its bit in the mask. */
enum {
    ZEB_GROUP_ERROR = 1,
    ZEB_GROUP_ENTER = 2,
    ZEB_GROUP_RETURN = 3,
    ZEB_GROUP_INFO = 4,
    ZEB_GROUP_TRACE = 5,
    ZEB_GROUP_DETAIL = 8,
    ZEB_GROUP_STATE_CHANGE = 14,
    ZEB_GROUP_RECEIVE_SIGNAL = 17,
    ZEB_GROUP_SEND_SIGNAL = 18,
};

/* What the service keeps per thread. The daemon reads the mask and passes the whole to every call. */
typedef struct zeb_proc_info {
    uint32_t reserved[3];
    uint32_t trace_group_mask;
} zeb_proc_info;

/* `__thread` rather than `thread_local`: a plain load from C and C++ alike, with no initialiser call. */
extern __thread zeb_proc_info procInfo;

/* First call of the process. 0 and 4 mean usable; with any other value traces carry no name. */
int zeb_init(void);

/* Names the trace provider of the calling thread; the text is copied. */
void zeb_register_thread_name(const char* name);

/* Emits one record. `text` may be NULL (return records have none). The file's name is of a literal: a sink
 * may keep the pointer, to count what repeats. */
void lttngZebTrace(uint32_t group, const char* short_file_name, int line, const char* text,
                   const zeb_proc_info* proc_info);

/* Emits a send-signal record; called just before oka_send. Never looks into the message. */
void lttngZebSendSigTrace(const char* short_file_name, int line, uint32_t message_number,
                          oka_mailbox receiver, const char* text, const zeb_proc_info* proc_info);

/* Emits a receive-signal record. Of the message only number, size, sender and receiver are shown. */
void lttngZebRecSigTrace(const char* short_file_name, int line, const oka_message* message, const char* text,
                         const zeb_proc_info* proc_info);

/* The formatted text, valid until the thread's next call; cut to 1023 characters. */
const char* formatStr(const char* format, ...) __attribute__((format(printf, 1, 2)));

/* The part of a source path that traces show: what follows the last "/". */
const char* short_fname(const char* path);

/* Whether records of the group are wanted. */
#define ZEB_IS_TRACED(group) ((procInfo.trace_group_mask & (1u << (group))) != 0)

/* One record of a group, with a format and its arguments, which are not evaluated unless it is wanted. */
#define ZEB_TRACE(group, ...)                                                                                \
    do {                                                                                                     \
        if (ZEB_IS_TRACED(group))                                                                            \
            lttngZebTrace((group), short_fname(__FILE__), __LINE__, formatStr(__VA_ARGS__), &procInfo);      \
    } while (0)

#ifdef __cplusplus
}
#endif
#endif
