// What the two ends of a link say to each other of it: puts this end's state into a message when the other
// end does not know it yet, and takes in what the other end's says.
#pragma once

#include "services/idl-topologyd/link_record.h"

namespace topologyd {

// Tells the other end what it does not know yet. It has to do only with links that are secured, or were.
void tell_other_end(link_record& link, daemon_contact daemon, uint64_t now_ms);
// The other end knows nothing any more.
void tell_again(link_record& link);
// The last word about a link that the file leads elsewhere now.
void say_farewell(const link_record& link);
// When something that was held back may be told; 0 for nothing.
uint64_t next_talk_ms(const link_record& link);

peer_report hear(const services::topology_peer_link_ind& said, uint64_t now_ms);

} // namespace topologyd
