/* The time by which timers run. A contract, like oka_timer.h. */
#ifndef QEL_TAVU_PLATFORM_OKA_CLOCK_H
#define QEL_TAVU_PLATFORM_OKA_CLOCK_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Milliseconds since some moment before the process began; setting the wall clock does not move it. */
uint64_t oka_now_ms(void);

#ifdef __cplusplus
}
#endif
#endif
