// Where trace records go. The default sink writes one line of text a record to stderr, with the priority
// prefix that the journal understands; a test plugs in its own to read what a module traced.
#pragma once

#include <cstdint>

namespace zeb {

struct record {
    uint32_t group;
    const char* file; // short form
    int line;
    const char* text; // never null; valid during the call
};

using sink = void (*)(const record&);

// Replaces the sink; null restores the default one.
void set_sink(sink new_sink);

// The mask for a list of group names separated by commas or blanks ("error info"), "all" or "none".
// A name that is not known is reported on stderr and left out.
uint32_t mask_from_text(const char* text);

} // namespace zeb
