// The reports that the two ends of a link send each other: sends this end's state when it differs from what
// the other end was told last, and reads the other end's reports.
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
