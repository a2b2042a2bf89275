// Searches for mailboxes of other processes. A family adds the places where the mailbox may be; each is
// connected to in turn, until a mailbox answers. One that is there and does not answer is looked for again
// after a while, and less and less often.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/oka/core/core.h"
#include "platform/oka/links/back_off.h"
#include "platform/oka/links/family.h"
#include "platform/oka/links/link.h"

namespace oka {

// More than one place only while names share an address, or while a dead process's is not yet withdrawn.
constexpr size_t places_limit = 4;

struct search {
    link_search link; // first: the link's callbacks get this one
    search* next = nullptr;
    const family* over = nullptr;
    uint32_t locate = 0;
    char unit[OKA_UNIT_PATH_SIZE] = {};
    char name[OKA_MAILBOX_NAME_SIZE] = {};
    uint64_t places[places_limit] = {}; // still to be tried
    size_t place_count = 0;
    bool failed = false;   // one of those that were tried
    bool reported = false; // why it cannot be reached
    uint32_t retry_timer = 0;
    back_off retry = {.first_ms = 100, .longest_ms = 4'000};

    mailbox_address wanted() const { return {unit, name}; }
};

// Goes on until answer_locate or cancel_search. `unit` is "" for the own one.
void start_search(const family& over, uint32_t locate, const char* unit, const char* name);
void cancel_search(const family& over, uint32_t locate);

// What a family calls.

// The first search over the family, or the next after one; null after the last.
search* next_search(const family& over, const search* after);
// A place, or one of those that are known no longer, is a matter of the next try_places.
void add_place(search& of, uint64_t place);
void remove_place(search& of, uint64_t place);
// Connects to what was added; may end searches.
void try_places(const family& over);

} // namespace oka
