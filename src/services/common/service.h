// The process around a program of the node: traces, timers, messaging, the root mailbox, the loop, and an
// orderly end.
#pragma once

#include "platform/oka.h"

namespace services {

struct service {
    const char* name; // of the program, in traces
    const char* root_mailbox;
    // False, after a trace that says why, when it cannot start.
    bool (*start)(oka_mailbox root);
    // Reads the message; the frame frees it. False when the process is to end.
    bool (*handle)(const oka_message* message);
    void (*stop)();
};

enum class service_end {
    not_started, // after a trace that says why
    by_itself,   // `handle` returned false
    asked,       // by SIGTERM or SIGINT
};

service_end run_service(const service& run);

// The exit status of a service that runs until it is asked to end.
int exit_status_of(service_end end);

} // namespace services
