// The packets between a conducted process and its conductor, over one SOCK_SEQPACKET socket between two
// processes of one host and one build. A packet from the process holds a record for everything that it did
// since its last step; it waits for the answer to the last record. A packet from the conductor holds one
// record, the answer.
#pragma once

#include <cstdint>

namespace oka {

enum class conduct : uint32_t {
    // What the process did. Own mailboxes appear by their id, others by the alias that the conductor gave
    // them.
    send = 1,          // a: to the alias, b: from the mailbox or none; the message's bytes
    withdraw = 2,      // a: mailbox
    locate = 3,        // a: locate; the unit, NUL, and the name
    cancel_locate = 4, // a: locate
    // What it waits for:
    hello = 8,
    announce = 5, // a: mailbox; its name
    wait = 6,     // a: conduct_wait flags, c: until this time at the latest
    balance = 7,  // a conduct_balance

    // The conductor answers or grants; c is the time from now on.
    welcome = 16,
    announced = 17, // a: whether the name was free
    deliver = 18,   // a: to the mailbox, b: from the alias or none; the message's bytes
    located = 19,   // a: locate, b: alias
    gone = 20,      // b: alias; it is not used again
    time = 21,      // timers may be due
    look = 22,      // at the descriptors that are watched
    tell_balance = 23,
};

enum conduct_wait : uint32_t {
    CONDUCT_WATCHES = 1, // there are watched descriptors
    CONDUCT_SAW = 2,     // the look that was granted found one ready
};

struct conduct_record {
    conduct kind;
    uint32_t length; // in bytes, of what follows
    uint32_t a;
    uint32_t b;
    uint64_t c;
};

// What is alive in the process.
struct conduct_balance {
    uint32_t messages;
    uint32_t mailboxes;
    uint32_t monitors;
    uint32_t locates;
    uint32_t timers;
    uint32_t watches;
    uint64_t heap; // bytes in use
};

// Larger than every packet, also than a record with a message of the largest size.
constexpr uint32_t conduct_packet_max = 96 * 1024;

} // namespace oka
