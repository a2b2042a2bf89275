// Messaging between the processes of one host, over AF_UNIX sockets.
//
// Mailbox N of unit U is a listening socket at OKA_DIR/U/N (OKA_DIR is /run/oka unless the environment says
// otherwise). A socket file appears there only once it can be connected to, so that a search waits with
// inotify and never polls.
#pragma once

#include "platform/oka/core/core.h"

namespace oka {

extern const transport unix_transport;

} // namespace oka
