#include "platform/zeb/repetition.h"

#include <cstddef>
#include <cstdio>
#include <utility>

namespace zeb {

namespace {

constexpr uint64_t minute_ms = 60'000;

// `file` is a literal of the code, so it is known by where it lies.
struct place {
    const char* file; // null when nothing is counted here
    int line;
    uint32_t group;
    uint32_t lines;

    bool is_of(const record& one) const { return file == one.file && line == one.line && group == one.group; }
};

// More than there are places in the code that trace.
constexpr size_t table_size = 512;
place table[table_size];
bool table_empty = true;
uint64_t minute_began_ms = 0; // with the first line that is in the table

size_t home_of(const record& one) {
    return (reinterpret_cast<uintptr_t>(one.file) + static_cast<size_t>(one.line) * 7 + one.group) %
           table_size;
}

// Null when the table is full.
place* find_or_add(const record& one) {
    const size_t home = home_of(one);
    for (size_t step = 0; step < table_size; step++) {
        place& each = table[(home + step) % table_size];
        if (!each.file)
            each = {.file = one.file, .line = one.line, .group = one.group, .lines = 0};
        if (each.is_of(one))
            return &each;
    }
    return nullptr;
}

} // namespace

admission admit(const record& line, uint64_t now_ms) {
    if (std::exchange(table_empty, false))
        minute_began_ms = now_ms;
    place* of = find_or_add(line);
    if (!of)
        return admission::write;
    of->lines++;
    if (of->lines < lines_a_minute)
        return admission::write;
    return of->lines == lines_a_minute ? admission::write_as_last : admission::count;
}

bool minute_is_over(uint64_t now_ms) {
    return now_ms - minute_began_ms >= minute_ms;
}

void tell_repetitions(void (*tell)(const record&)) {
    table_empty = true;
    for (place& each : table) {
        if (each.lines > lines_a_minute) {
            char text[80];
            snprintf(text, sizeof text, "ZEB: repeated %u times within a minute, not shown",
                     each.lines - lines_a_minute);
            tell({each.group, each.file, each.line, text});
        }
        each = {};
    }
}

} // namespace zeb
