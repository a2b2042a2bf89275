// Dispatch is a table: a message's number, and the function that handles it. Numbers of messages that the
// process prepares for itself, its timers, lookups and supervisions, are marked: what somebody sent under one
// of them is dropped.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/oka.h"

namespace tavu {

enum class origin { sent, prepared };

struct dispatch_row {
    uint32_t number;
    void (*handle)(const oka_message* message);
    origin from = origin::sent;
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

// False, after an error trace, when the message is to be dropped since it was sent and not prepared.
[[nodiscard]] bool is_rightful(origin expected, const oka_message* message);

// True when the table has the message's number; the message is handled then, or dropped.
template<size_t N>
[[nodiscard]] bool dispatch_by(const dispatch_row (&table)[N], const oka_message* message) {
    const dispatch_row* row = find_row(table, message);
    if (row && is_rightful(row->from, message))
        row->handle(message);
    return row;
}

} // namespace tavu
