// Counts the lines that each place in the code traces within a minute, so that messages of others cannot make
// the process write without a bound. What is beyond the bound is counted, and the count is told.
#pragma once

#include <cstdint>

#include "platform/zeb/zeb_sink.h"

namespace zeb {

constexpr uint32_t lines_a_minute = 100;

// What becomes of a line, by how many its place has traced in the current minute.
enum class admission {
    write,
    write_as_last, // further ones are counted
    count,
};

admission admit(const record& line, uint64_t now_ms);

// Whether a minute has passed since its first line.
bool minute_is_over(uint64_t now_ms);

// Tells of each place whose lines were only counted how many there were. The next line begins a new minute.
void tell_repetitions(void (*tell)(const record&));

} // namespace zeb
