// A clock and a transport in one, for simulating whole nodes: another process, the conductor, owns time and
// decides what is delivered when. The process runs only between two calls of `wait`. So the conductor knows
// of everything that it does, and the same grants make it do the same again.
//
// OKA_CONDUCTOR is the number of the inherited socket that leads to the conductor. Without a conductor at the
// other end the process ends.
#pragma once

namespace oka::simulation {

// Before anything else of messaging.
void plug_conductor();

} // namespace oka::simulation
