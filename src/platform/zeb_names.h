/* What the environment may say about traces: for programs that check a configuration before the trace
 * service uses it. A contract, like zeb.h; callable at any time.
 */
#ifndef QEL_TAVU_PLATFORM_ZEB_NAMES_H
#define QEL_TAVU_PLATFORM_ZEB_NAMES_H

#include <stdbool.h>
#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Whether ZEB_TRACE may have this value: names of trace groups, "all" or "none", separated by blanks or
 * commas. When not, `wrong`, of `size` bytes, says what is wrong and what to write. */
bool zeb_check_trace_groups(const char* value, char* wrong, size_t size);

#ifdef __cplusplus
}
#endif
#endif
