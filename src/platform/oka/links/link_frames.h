// What travels on a link: one frame a packet, every integer big-endian.
#pragma once

#include <cstddef>
#include <cstdint>
#include <endian.h>

#include "platform/oka.h"
#include "platform/oka_names.h"

namespace oka {

enum class frame_kind : uint32_t {
    hello = 1,   // who connects
    welcome = 2, // who accepted, and the mailbox behind the socket
    attach = 3,  // the connection is to be used, with the proof of who connected
    lookup = 4,  // is the mailbox `receiver` still there?
    found = 5,   // the mailbox `sender` is
    gone = 6,    // the mailbox `sender` is not, or no longer
    message = 7, // from `sender` to `receiver`; the message follows, its number big-endian too
};

// Mailboxes are meant as the process knows them that owns them.
struct frame_header {
    uint32_t kind_be;
    uint32_t receiver_be;
    uint32_t sender_be;
};
static_assert(offsetof(frame_header, kind_be) == 0 && offsetof(frame_header, receiver_be) == 4 &&
              offsetof(frame_header, sender_be) == 8 && sizeof(frame_header) == 12);

constexpr uint32_t link_version = 2;

// A number that a process draws when it starts.
struct process_id {
    unsigned char bytes[16];
};

// A number that is drawn for one connection.
struct nonce {
    unsigned char bytes[16];
};

// That the sender knows the secret of the node's group; zero where none is needed.
struct proof {
    unsigned char bytes[32];
};

struct greeting_frame { // hello and welcome
    frame_header header;
    uint32_t version_be;
    process_id process;
    nonce challenge;
    proof proven; // in the welcome
    char unit[OKA_UNIT_PATH_SIZE];
};
static_assert(offsetof(greeting_frame, version_be) == 12 && offsetof(greeting_frame, process) == 16 &&
              offsetof(greeting_frame, challenge) == 32 && offsetof(greeting_frame, proven) == 48 &&
              offsetof(greeting_frame, unit) == 80 && sizeof(greeting_frame) == 336);

struct attach_frame {
    frame_header header;
    proof proven;
};
static_assert(offsetof(attach_frame, proven) == 12 && sizeof(attach_frame) == 44);

constexpr size_t largest_frame = sizeof(frame_header) + OKA_MESSAGE_SIZE_MAX;

inline frame_header make_header(frame_kind kind, oka_mailbox receiver, oka_mailbox sender) {
    return {htobe32(static_cast<uint32_t>(kind)), htobe32(receiver), htobe32(sender)};
}

} // namespace oka
