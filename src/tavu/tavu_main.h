// The top of the daemon: starts the platform services and every module in a fixed order, connects their
// callbacks, runs the one event loop, and is the only place that ends the process, with status 1.
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

// Its steps, for programs that run the daemon's modules under an event loop of their own. On failure they
// return false after an error trace, and what was set up so far remains.
[[nodiscard]] bool tavu_main_init();
[[nodiscard]] bool tavu_main_start();
// Receives and routes messages until the messaging service returns none, which is when the process was asked
// to end.
void event_loop();
// Routes one message, as event_loop does with each, and frees it.
void route_message(oka_message* message);
[[noreturn]] void tavu_main_terminate();

tavu_main_state get_tavu_main_state();

} // namespace tavu
