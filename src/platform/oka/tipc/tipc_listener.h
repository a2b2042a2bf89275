// The mailboxes of this process as TIPC services: publishing them, and letting in who names them right.
#pragma once

#include "platform/oka/core/core.h"

namespace oka {

void set_published_unit(const char* unit);
bool announce_service(oka_mailbox mailbox, const char* name);
void withdraw_service(oka_mailbox mailbox);

// A connection was closed: there may be room for another.
void accept_again();
void stop_accepting();

} // namespace oka
