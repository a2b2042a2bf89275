// Serves those who ask for the links and steer them: answers status queries with what the daemon says now,
// tells watchers of every change, and answers a set status once the daemon confirmed it.
#pragma once

#include "platform/oka.h"

namespace topologyd {

void control_server_start(oka_mailbox mailbox);
void control_server_stop();

// What a snapshot shows has changed.
void control_server_note_change();
// Sends the answers that can be given now. Called after every message that this process handled.
void control_server_settle();

// True when the message was this module's.
bool control_server_dispatch_message(const oka_message* message);

} // namespace topologyd
