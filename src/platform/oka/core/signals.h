// SIGTERM and SIGINT ask the process to end. They arrive at a descriptor, which oka_receive watches while it
// waits, so that the process ends between two messages and not in the middle of one.
#pragma once

namespace oka {

// From now on the two signals do not end the process. False, after an error trace, when the kernel refuses.
bool watch_signals();
// From now on they have the effect that they had before.
void unwatch_signals();
// Whether one has come.
bool is_asked_to_end();

} // namespace oka
