// What the kernel says of a SecY to anybody who asks.
#pragma once

#include "platform/oxhal_view.h"

namespace oxhal::kernel {

// Returns 0 or an errno value, ENODEV when there is no such interface or no MACsec. A SecY that is no MACsec
// interface's leaves the view as it is.
int read_view(const char* controlled_port, oxhal_view& view);

} // namespace oxhal::kernel
