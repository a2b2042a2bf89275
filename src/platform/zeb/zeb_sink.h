// Where trace records go. The default sink writes one line of text a record to stderr, with the priority
// prefix that the journal understands; a test plugs in its own to read what a module traced.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace zeb {

struct record {
    uint32_t group;
    const char* file; // short form; of a literal
    int line;
    const char* text; // never null; valid during the call
};

using sink = void (*)(const record&);

// Replaces the sink; null restores the default one.
void set_sink(sink new_sink);

// The clock by which the default sink bounds what repeats, in milliseconds; null restores the kernel's.
void set_clock(uint64_t (*now_ms)());

// The mask for a value of ZEB_TRACE, without the names that are not known. Whether all were; when not,
// `wrong` says which is not, and what there is.
bool read_mask(std::string_view text, uint32_t& mask, char* wrong, size_t size);

} // namespace zeb
