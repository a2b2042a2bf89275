// The manager's end of the MACsec service protocol. It finds the daemon's mailbox "oxmsi", connects to it,
// and does both again whenever the daemon went away; a refused connection is asked for again after a pause.
// What is to be published is its caller's business.
//
// While it is connected it asks for something every second, so that a daemon that stands still is noticed.
//
// It never closes a connection: the daemon releases every port when any of its clients closes.
#pragma once

#include "services/idl-topologyd/daemon_probe.h"
#include "services/idl-topologyd/publication.h"

namespace topologyd {

enum oxmsi_client_state {
    OXMSI_CLIENT_STATE_UNINITIALIZED = 0,
    OXMSI_CLIENT_STATE_LOCATING = 1,
    OXMSI_CLIENT_STATE_CONNECTING = 2,
    OXMSI_CLIENT_STATE_REFUSED = 3,
    OXMSI_CLIENT_STATE_CONNECTED = 4,
};

struct oxmsi_client_callbacks {
    // Both follow a change of the state; a new connection knows nothing of what was sent on an earlier one.
    void (*handle_connected)();
    void (*handle_disconnected)();
    // The state, the reason of a refusal, or whether the daemon answers, changed.
    void (*handle_progress)();
    // The daemon answers again after so long a silence that it may have lost what it had secured, or this
    // process stood still for as long.
    void (*handle_silence_ended)();
    // A confirm or reject of a link request, or a reject of a subscription.
    void (*handle_answer)(uint32_t procedure_reference, const daemon_answer& answer);
    // An indication; the reference is that of the subscription.
    void (*handle_indication)(uint32_t procedure_reference, const tavu::port_name& port,
                              const daemon_answer& status);
};

// Every message to and from the daemon passes through `mailbox`. Begins to locate.
[[nodiscard]] bool oxmsi_client_start(oka_mailbox mailbox, const oxmsi_client_callbacks* callbacks);
// Forgets the daemon. What ends the connection is the end of `mailbox`.
void oxmsi_client_stop();

// Each returns the procedure reference, which is never 0, of a request that was sent, or 0 when not
// connected.
uint32_t oxmsi_client_send_link(const due_request& request);
uint32_t oxmsi_client_subscribe(const tavu::port_name& port);
uint32_t oxmsi_client_unsubscribe(const tavu::port_name& port);
uint32_t oxmsi_request_number(link_request request);

oxmsi_client_state oxmsi_client_get_state();
uint64_t oxmsi_client_state_since_ms();
daemon_contact oxmsi_client_contact();
// Why the last connection was refused, oxmsi_reject_reason; 0 once connected.
uint32_t oxmsi_client_refusal();

// True when the message was this module's.
bool oxmsi_client_dispatch_message(const oka_message* message);

} // namespace topologyd
