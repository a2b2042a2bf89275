// Searches for mailboxes of other processes, in the messaging directory.
//
// A search waits for the file system to say that something changed on the way to the socket file; the file
// appears when it can be connected to.
#pragma once

#include <cstdint>

namespace oka {

// Goes on until answer_locate or cancel_search. `unit` is "" for the own one.
void start_search(uint32_t locate, const char* unit, const char* name);
void cancel_search(uint32_t locate);

} // namespace oka
