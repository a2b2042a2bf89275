// One link of this node: what the links file and the operator want of it, what the two ends have agreed on,
// what the daemon holds, and what is told to the other end and to people. Here the two machines meet, and
// only here.
#pragma once

#include <optional>

#include "services/idl-topologyd/agreement.h"
#include "services/idl-topologyd/daemon_probe.h"
#include "services/idl-topologyd/publication.h"
#include "services/idl-topologyd/secy_watch.h"

namespace topologyd {

// What keeps a link from being secured.
struct fault {
    services::topology_fault_code code = services::TOPOLOGY_FAULT_NONE;
    services::topology_end end = services::TOPOLOGY_END_NONE;
    uint64_t since_ms = 0;
    services::fault_words words{};
};

// What the other end was told last, without ages.
struct told_report {
    services::topology_peer_link_ind report{};
    uint32_t recently = 0;
    uint64_t since_ms = 0;
};

struct link_record {
    link_attributes file; // the last the file said; its port is the record's name
    bool is_in_file = true;
    std::optional<uint32_t> set_status{}; // over the file's
    agreement agreed{};
    publication published{};
    told_report told{};
    fault shown{};
    secy_watch watched{};
};

// Whether the link is to be secured, as far as the file and the operator are concerned.
bool wants_security(const link_record& link);
// What the daemon is to hold: the file's attributes, with a status that somebody set over the file's, and
// down as long as the two ends of a link that is to be secured do not agree on it.
wanted_publication wanted_of(const link_record& link);
link_situation situation_of(const link_record& link, daemon_contact daemon);
services::topology_phase phase_of(const link_record& link, daemon_contact daemon, uint64_t now_ms);

// The link is as the file or the operator wants it: secured, if it is to be, unless its port is down.
bool is_fulfilled(const link_record& link);
// Nothing of the link is left with the daemon, and nothing is wanted of it.
bool is_over(const link_record& link);

} // namespace topologyd
