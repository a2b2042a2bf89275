/* The timer service: one-shot timers that deliver a prepared message.
 *
 * A contract, like oka.h, and on the same thread. Time is monotonic: setting the wall clock moves no
 * timer.
 */
#ifndef QEL_TAVU_PLATFORM_OKA_TIMER_H
#define QEL_TAVU_PLATFORM_OKA_TIMER_H

#include <stdbool.h>
#include <stdint.h>

#include "platform/oka.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Identifies a requested timer; 0 means none. A reference is not given to another timer while its own runs,
 * nor for 1000 further timers after that: who handles an expiry may cancel what runs by then without knowing
 * whether that is the timer which expired. */
typedef uint32_t oka_timer_ref;

/* Brings the service up, before oka_init. False when it cannot. */
bool oka_timer_service_init(void);

/* Cancels every timer and frees the prepared messages. False when the service was not up. */
bool oka_timer_service_stop(void);

/* Takes *prepared (and sets it to NULL) and delivers it once, not earlier than `timeout_ms`
 * milliseconds from now: it is received on the process's root mailbox, in the order of the due times of
 * all timers, with OKA_MAILBOX_NONE as its sender. Never returns 0. */
oka_timer_ref oka_timer_request_sig(uint32_t timeout_ms, oka_message** prepared);

/* Stops a timer that has not expired; its message is freed and not delivered. A timer that has expired
 * already, and whose message waits to be received, delivers it all the same: the receiver has to
 * recognise a stale one. 0 and unknown references are ignored. */
void oka_timer_cancel(oka_timer_ref timer);

#ifdef __cplusplus
}
#endif
#endif
