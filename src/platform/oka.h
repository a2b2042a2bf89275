/* The messaging service: mailboxes, messages, name lookup and mailbox supervision.
 *
 * This is a contract. The daemon calls these operations and relies on every sentence below that says
 * MUST; an implementation for another platform is right when it passes the messaging contract suite in
 * tests/. Everything happens on one thread, the one that calls oka_receive; no operation but
 * oka_receive ever blocks, and none calls back.
 */
#ifndef QEL_TAVU_PLATFORM_OKA_H
#define QEL_TAVU_PLATFORM_OKA_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Identifies a mailbox of this or of another process, as this process knows it. Two ids are equal
 * exactly when they name the same mailbox, however it became known. An id MUST NOT be given to another
 * mailbox while anyone may still hold it. Ids mean nothing outside the process. */
typedef uint32_t oka_mailbox;
#define OKA_MAILBOX_NONE ((oka_mailbox)0xffffffffu)

/* Identifies one supervision; never 0. */
typedef uint32_t oka_monitor_ref;

/* A message begins with its number, in the byte order of the machine that holds it: a transport carries the
 * number in one fixed order and converts it. The bytes
 * after the number belong to the protocol and are carried as they are. The buffer is aligned for any
 * type. Exactly one party owns a message at any time. */
typedef struct oka_message {
    uint32_t number;
} oka_message;

/* Largest message that every transport carries, in bytes, its number included. */
#define OKA_MESSAGE_SIZE_MAX 65536u

/* Sender selector of oka_receive: a message from anyone. */
#define OKA_ANY_SENDER 0xfff11111u
/* Time-out of oka_receive: wait for ever. */
#define OKA_WAIT_FOREVER (-1)

/* Brings the service up; called once, after the timer service. The arguments are the platform's own
 * (the daemon passes 37 and four zeros). Returns 0, or an error number after it reported why. */
int oka_init(uint32_t platform_word, uint32_t reserved_1, uint32_t reserved_2, uint32_t reserved_3,
             uint32_t reserved_4);

/* Releases the service: every mailbox is deleted, queued messages are freed, connections are closed.
 * May be called when oka_init failed or was never called. */
void oka_exit(void);

/* Creates the process's root mailbox. `flags` is 0. Timer messages are received on it, and those of
 * supervisions whose own mailbox is gone. Returns OKA_MAILBOX_NONE, after reporting why, when the name is not
 * valid (empty, longer than 79 characters, with a "/" or a leading "."), is taken, or cannot be
 * published. */
oka_mailbox oka_create_mailbox(const char* name, uint32_t flags);

/* Creates a further mailbox under a unique name. oka_receive of this thread MUST return its messages
 * too. Errors as oka_create_mailbox, but that a name which cannot be published now MAY be published
 * later: the mailbox works, and is found from then on. */
oka_mailbox oka_clone_mailbox(oka_mailbox existing, const char* name);

/* Deletes a mailbox of this process: its name is free again, messages still queued for it and locates
 * that it asked for are dropped, and the mailboxes that monitor it are told. OKA_MAILBOX_NONE and ids that
 * are not mailboxes of this process are ignored. */
void oka_delete_mailbox(oka_mailbox mailbox);

/* A new message owned by the caller. `size` is in bytes and counts the number, so it is at least 4; all
 * bytes after the number are zero. MUST NOT return NULL: a process that is out of memory ends. */
oka_message* oka_alloc(size_t size, uint32_t number);

/* Sends *message to `receiver` and sets *message to NULL; the service owns it from here. `sender` is
 * the mailbox of this process to which replies are to go; the receiver reads it with oka_sender.
 * Messages between two mailboxes MUST arrive complete, once, and in the order in which they were sent.
 * Sending MUST NOT block: the backlog of a peer that does not read is bounded, and a peer that
 * exceeds it is treated as dead. A message to a mailbox that does not exist (any more), or larger than
 * OKA_MESSAGE_SIZE_MAX, is dropped and freed. A message to a mailbox of the own process is received
 * through oka_receive like any other, never synchronously. */
void oka_send(oka_message** message, oka_mailbox receiver, oka_mailbox sender);

/* The next message for any mailbox of this process; the caller owns it. `numbers` selects message
 * numbers: an array whose first word counts the numbers that follow, or NULL for all; messages that are
 * not selected stay queued in their order. `timeout_ms` is OKA_WAIT_FOREVER, 0 to poll, or the longest
 * time to wait. `sender_selector` is OKA_ANY_SENDER or the only sender that is wanted. Returns NULL
 * when the time-out passed, when nothing can ever arrive, and always once the process was asked to end
 * (SIGTERM or SIGINT): it then has all the time that it needs to end in order. Waits in one system call, and
 * makes none while nothing happens. */
oka_message* oka_receive(const uint32_t* numbers, int32_t timeout_ms, uint32_t sender_selector);

/* The mailbox a received message came from; a reply is sent to it. OKA_MAILBOX_NONE for a timer's. */
oka_mailbox oka_sender(const oka_message* message);
/* Whether this process prepared the message itself: a timer's, a lookup's answer, a supervision's, a watch's.
 * What other processes send, and what this one sends to itself, MUST NOT be taken for it, whatever its
 * number. */
bool oka_is_prepared(const oka_message* message);
/* The mailbox of this process that a received message was sent to. */
oka_mailbox oka_receiver(const oka_message* message);
/* The size that the sender allocated, in bytes, the number included; at least 0 bytes on the wire, so
 * a receiver MUST look at nothing before it knows the size. The number reads as 0 when it did not
 * arrive whole. */
uint32_t oka_size(const oka_message* message);
/* Frees *message, wiping its bytes first, since messages carry keys; sets *message to NULL. */
void oka_free(oka_message** message);

/* Asks for the mailbox called `name`. A name with a "/" in it is a hunt path, a unit's path and the
 * name of a mailbox of that unit; any other is a mailbox of the own unit. A unit on another host offers
 * no more than "mka-key-server" and "idl-topologyd-peer"; its other mailboxes are never found, and what is
 * sent to them MUST be dropped unless they have sent something to that host. Takes *prepared and returns
 * at once. The moment such a mailbox exists, now or later, *prepared MUST be delivered once to
 * `mailbox`, with the located mailbox as its sender. A name that never exists delivers nothing. */
void oka_locate_async(const char* name, oka_message** prepared, oka_mailbox mailbox);

/* Supervises a mailbox. Takes *prepared and delivers it exactly once when the mailbox is deleted, its
 * process dies or its connection breaks, however that happens; at once when it is gone already. It
 * arrives on the mailbox through which the supervised one became known (by the locate's answer or by
 * the last message received from it), or on the root mailbox when that one is gone, with the
 * supervised mailbox as its sender, and after every message that the supervised mailbox sent. */
oka_monitor_ref oka_monitor(oka_mailbox mailbox, oka_message** prepared);

/* Ends a supervision. Its message MUST NOT be delivered afterwards, even when it is queued already.
 * Unknown references are ignored. */
void oka_unmonitor(oka_monitor_ref monitor);

#ifdef __cplusplus
}
#endif
#endif
