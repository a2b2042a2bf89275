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

// The row of that message in a table whose rows have a number, or null.
template<class Row, size_t N>
const Row* find_row(const Row (&table)[N], const oka_message* message) {
    for (const Row& row : table) {
        if (row.number == message->number)
            return &row;
    }
    return nullptr;
}

// True when the table has the message's number; the message is handled then.
template<size_t N>
[[nodiscard]] bool dispatch_by(const dispatch_row (&table)[N], const oka_message* message) {
    const dispatch_row* row = find_row(table, message);
    if (row)
        row->handle(message);
    return row;
}

} // namespace tavu
