// A clock and a transport in one, for simulating whole nodes with the processes that ship: another process,
// the conductor, owns time and decides what is delivered when. The process runs only between two calls of
// `wait`, so it does nothing that the conductor does not know of, and the same grants make it do the same
// again.
//
// OKA_TRANSPORTS=conductor chooses it, alone; OKA_CONDUCTOR is the number of the inherited socket that leads
// to the conductor. Without a conductor at the other end the process ends.
#pragma once

#include "platform/oka/core/core.h"

namespace oka {

extern const clock conductor_clock;
extern const transport conductor_transport;

// Whether the environment chooses it.
bool is_conducted();
// From the conductor's seed.
uint64_t conducted_random();

} // namespace oka
