// Puts into words what keeps a link from being secured: what is wrong, at which end, and what to do.
#pragma once

#include "services/idl-topologyd/link_record.h"

namespace topologyd {

// What is wrong at this end alone; the other end is told it.
fault own_fault(const link_record& link, daemon_contact daemon, uint64_t now_ms);
// What is wrong with the link, wherever. Without a time, which depends on what was wrong before.
fault fault_of(const link_record& link, daemon_contact daemon, uint64_t now_ms);
// Keeps what is wrong now as what is shown. True when that changed.
bool update_fault(link_record& link, daemon_contact daemon, uint64_t now_ms);

// What somebody else said, fit for a terminal.
services::fault_words quote_words(const char* said);

} // namespace topologyd
