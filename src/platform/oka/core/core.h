// The seams of the messaging core.
//
// The core keeps mailboxes, the queue of received messages, locates, supervisions and timers. What time
// is and how the process waits comes from a clock; how messages reach other processes comes from zero or
// more transports. With a virtual clock and no transport the core is a complete messaging service within
// one process. A clock and a transport may be one thing: a conductor that decides both time and delivery
// implements both tables, and the process then runs only between two calls of its `wait`.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/oka.h"
#include "platform/oka_names.h"

namespace oka {

constexpr uint64_t never_ns = UINT64_MAX;

constexpr size_t transports_at_once = 2;

// A message with what the service knows about it. The message itself follows the head room, so that a
// transport writes its frame header in front of it and sends both in one piece.
enum class origin : uint8_t { mailbox, locate, monitor, timer, watch };

struct envelope {
    envelope* next;
    oka_mailbox receiver;
    oka_mailbox sender;
    uint32_t size;
    uint32_t reference; // of the monitor or watch that it comes from
    origin from;
    alignas(alignof(std::max_align_t)) unsigned char head_room[16];
    oka_message message;
};

// Zero-filled; ends the process when there is no memory.
envelope* new_envelope(uint32_t size);
// Wipes the bytes of the message before it frees them.
void free_envelope(envelope* message);
inline unsigned char* bytes_of(envelope* message) {
    return reinterpret_cast<unsigned char*>(message) + offsetof(envelope, message);
}

struct clock {
    uint64_t (*now_ns)();
    // Waits in one system call until something was delivered or the time has come; a time that has
    // passed already only collects what is there. False when nothing can ever arrive.
    bool (*wait)(uint64_t deadline_ns);
};

struct transport {
    const char* name;
    // Whether it leads to other hosts. Then it gets the hunt paths, and the others do not.
    bool between_hosts;
    // Returns 0 or an error number that it has reported.
    int (*start)(const char* own_unit);
    void (*stop)();
    // Makes a mailbox of this process reachable by its name.
    bool (*announce)(oka_mailbox mailbox, const char* name);
    // Takes that back, and tells other processes that know the mailbox that it is gone.
    void (*withdraw)(oka_mailbox mailbox);
    // Searches until answer_locate or cancel_locate. `unit` is "" for the own one.
    void (*locate)(uint32_t locate, const char* unit, const char* name);
    void (*cancel_locate)(uint32_t locate);
};

// Before oka_timer_service_init and oka_init. What is plugged stays for the life of the process; a process
// that plugs nothing gets the Linux clock and the transports that OKA_TRANSPORTS names. One that plugs a
// clock gets no other transports than it plugs.
void plug_clock(const clock* plugged);
void plug_transport(const transport* plugged);

// What a transport calls. None of it calls back, but that answer_locate ends with cancel_locate.

const char* own_unit();
bool is_local(oka_mailbox mailbox);
uint64_t now_ns();
// Whether a transport that does not lead to other hosts sees to it that every name is one mailbox's.
bool names_are_kept_within_host();
// A mailbox of another process became known, under an id that it keeps until remove_remote. Messages for it
// go to `send`, which owns them; their `sender` is a mailbox of this process or none.
oka_mailbox add_remote(void (*send)(void* handle, envelope* message), void* handle);
// It is gone: its monitors fire.
void remove_remote(oka_mailbox mailbox);
// Queues a message for oka_receive, or frees it when its receiver is gone.
void deliver(envelope* message);
void answer_locate(uint32_t locate, oka_mailbox found);

// A timer of the platform itself: calls instead of delivering. 0 is never its reference.
uint32_t call_later(uint64_t delay_ms, void (*call)(void* context), void* context);
void cancel_call(uint32_t timer);

} // namespace oka
