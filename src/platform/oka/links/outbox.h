// Sending to a peer: what it does not read waits here, bounded for each peer and for all together.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/oka/core/core.h"
#include "platform/oka/core/descriptors.h"
#include "platform/oka/links/link_frames.h"

namespace oka {

struct outbox {
    outbox* next = nullptr;
    descriptor* to = nullptr; // the connection that is sent on
    uint32_t pid = 0;
    // Nothing is sent any more: the other side no longer reads, or the peer is at its end.
    bool closed = false;
    envelope* waiting = nullptr;
    envelope** end = &waiting;
    size_t bytes = 0; // of what waits
};

void open_outbox(outbox& opened, descriptor& to, uint32_t pid);
// Drops what waits.
void close_outbox(outbox& closed);

// Sends the message with this header in front of it, or keeps it until there is room; owns it. A peer that
// does not read enough is cut off, and its connections are seen to end.
void post(outbox& out, const frame_header& header, envelope* message);
// Sends what waits, as far as there is room.
void flush(outbox& out);

} // namespace oka
