// Decides which interface receives a frame without a SecTAG. clear_frames.cpp says why this is needed.
#pragma once

#include "platform/oxhal/netlink.h"
#include "platform/oxhal/secy.h"

namespace oxhal {

// From now on IP and ARP frames that arrive in clear on the common port reach its user once, by the
// controlled port, or (`admit` false) not at all. All else on the common port goes on as before.
// Returns 0 or an errno value.
int set_clear_frame_filters(netlink& route, unsigned common_port, unsigned controlled_port, bool admit);

// The common port's frames are its own again.
void remove_clear_frame_filters(netlink& route, unsigned common_port);

} // namespace oxhal
