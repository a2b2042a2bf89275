// One conversation with the topology manager: finds it, sends the request, and shows the answer.
#pragma once

#include <string>

#include "services/tavuctl/command_line.h"

namespace tavuctl {

enum session_state {
    SESSION_STATE_LOCATING = 0,
    SESSION_STATE_ASKING = 1,
    SESSION_STATE_WATCHING = 2,
    SESSION_STATE_DONE = 3,
};

struct session_callbacks {
    // For standard output and standard error. Whole lines.
    void (*handle_output)(const std::string& text);
    void (*handle_error)(const std::string& text);
    // Whether a watch redraws the screen. Otherwise it writes a line for every change.
    bool has_screen;
};

void session_start(oka_mailbox mailbox, const command_line& command, const session_callbacks* callbacks);
// Gives up what it waits for.
void session_stop();
// Reads the message; the caller frees it.
void session_dispatch_message(const oka_message* message);

session_state session_get_state();
// Once done.
exit_status session_exit_status();

} // namespace tavuctl
