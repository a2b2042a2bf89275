// The view of the SecY in memory. It lies in a file that OXHAL_SIM_VIEW names, which the process that has the
// SecY writes and others map: like hardware, it keeps what was installed when that process dies, and a new
// one empties it. Without the variable nothing is shown. There are no frames, so a test or a simulation
// counts them itself.
#pragma once

#include "platform/oxhal/secy.h"
#include "platform/oxhal_view.h"

namespace oxhal_sim {

// Whether the SecYs are shown.
bool shows_views();
// The port's SecY is like this from now on. The counters stay as they are.
void show_view(const oxhal::port& on, const oxhal_view& view);
// Returns 0 or an errno value.
int read_view(const char* port_name, oxhal_view& view);
// Writes the counters of `view`, and nothing else of it, to where they are read.
int write_counters(const char* port_name, const oxhal_view& view);

} // namespace oxhal_sim
