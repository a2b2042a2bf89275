#include "base/dispatch.h"

#include "base/trace.h"

namespace tavu {

bool is_rightful(origin expected, const oka_message* message) {
    if (expected == origin::sent || oka_is_prepared(message)) [[likely]]
        return true;
    TRACE_ERROR("TAVU: Message 0x%x is received from mailbox %u, but only this process prepares it; dropped",
                message->number, oka_sender(message));
    return false;
}

} // namespace tavu
