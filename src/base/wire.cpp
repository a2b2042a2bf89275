#include "base/wire.h"

#include "base/trace.h"

namespace tavu {

bool verify_msg_length_equals(const oka_message* message, uint32_t expected) {
    if (oka_size(message) == expected)
        return true;
    TRACE_ERROR("TAVU: Message 0x%x has wrong size: actual: %u bytes, expected: %u bytes", message->number,
                oka_size(message), expected);
    return false;
}

bool verify_msg_length_minimum_size(const oka_message* message, uint32_t minimum) {
    if (oka_size(message) >= minimum)
        return true;
    TRACE_ERROR("TAVU: Message 0x%x has wrong size: actual: %u bytes, expected at least: %u bytes",
                message->number, oka_size(message), minimum);
    return false;
}

bool verify_sender(const oka_message* message, oka_mailbox expected, const char* name) {
    if (oka_sender(message) == expected) [[likely]]
        return true;
    TRACE_ERROR("TAVU: '%s' is received from wrong mailbox. Actual: %u, expected: %u", name,
                oka_sender(message), expected);
    return false;
}

} // namespace tavu
