// The top of the daemon: brings up the platform services and every module in a fixed order, wires their
// callbacks, runs the one event loop, and owns the one way out of the process, with status 1.
#pragma once

#include "base/wire.h"

namespace tavu {

enum tavu_main_state {
    TAVU_MAIN_STATE_UNINITIALIZED = 0,
    TAVU_MAIN_STATE_INITIALIZED = 1,
    TAVU_MAIN_STATE_STARTED = 2,
    TAVU_MAIN_STATE_READY = 3, // ports known, "oxmsi" published
};

constexpr const char* root_mailbox_name = "qel-tavu-root";
constexpr uint32_t max_port_managers = 16;

// The whole life of the process: never returns.
[[noreturn]] void tavu_main();

// The steps of it, for programs that run the daemon's modules under an event loop of their own. False, after
// an error trace, leaves what was set up in place.
[[nodiscard]] bool tavu_main_init();
[[nodiscard]] bool tavu_main_start();
// Receives and routes messages until the messaging service hands out none any more.
void event_loop();
// Routes one message, as event_loop does with each, and frees it.
void route_message(oka_message* message);
[[noreturn]] void tavu_main_terminate();

tavu_main_state get_tavu_main_state();

} // namespace tavu
