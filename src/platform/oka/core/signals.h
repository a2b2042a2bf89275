// The wish that the process end, SIGTERM or SIGINT, as something that the thread of messaging hears where it
// waits.
#pragma once

namespace oka {

// From now on the two signals end nothing by themselves. False, after an error trace, when the kernel
// refuses.
bool watch_signals();
// They do what they did before.
void unwatch_signals();
// Whether one has come.
bool is_asked_to_end();

} // namespace oka
