// Dispatch is a table: a message's number, and the function that handles it.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/oka.h"

namespace tavu {

struct dispatch_row {
    uint32_t number;
    void (*handle)(const oka_message* message);
};

// True when the table has the message's number; the message is handled then.
template<size_t N>
[[nodiscard]] bool dispatch_by(const dispatch_row (&table)[N], const oka_message* message) {
    for (const dispatch_row& row : table) {
        if (row.number == message->number) {
            row.handle(message);
            return true;
        }
    }
    return false;
}

} // namespace tavu
