// The process around a service: traces, timers, messaging, the root mailbox, the loop, and an orderly end.
#pragma once

#include "platform/oka.h"

namespace services {

constexpr int exit_failure = 1;

struct service {
    const char* name; // of the program, in traces
    const char* root_mailbox;
    // False, after a trace that says why, when it cannot serve.
    bool (*start)(oka_mailbox root);
    // Reads the message; the frame frees it. False when it cannot serve any longer.
    bool (*handle)(const oka_message* message);
    void (*stop)();
};

// Returns the exit status: 0 when the process was asked to end, exit_failure when it could not go on.
int run_service(const service& run);

// Names the process in traces and brings timers and messaging up. False after a trace that says why.
[[nodiscard]] bool start_platform(const char* name);

} // namespace services
