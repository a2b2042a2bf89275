// Monotonic time, and waiting in epoll.
#pragma once

#include "platform/oka/core/core.h"

namespace oka {

extern const clock linux_clock;

} // namespace oka
