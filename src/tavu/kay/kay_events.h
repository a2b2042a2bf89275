// What the key server asks of a KaY, and the retiring of old receive keys that follows from it. A request
// that cannot be carried out fails the KaY, except that a full SecY is answered with a rejection; a request
// of another CA, or one that comes in the wrong state, is ignored.
#pragma once

#include "tavu/kay/kay_records.h"
#include "tavu/mka/mka_client.h"

namespace tavu::kay_internal {

// Delivered when all receive associations of a channel but the newest are to be deleted. It never leaves the
// process.
struct kay_sa_disposal_timeout_ind {
    TAVU_FIELD(0, number, host32);
    TAVU_FIELD(4, port, port_name);
    TAVU_FIELD(20, identifier, sci);    // of the receive channel
    TAVU_FIELD(28, an, uint8_t);        // of the association that was new when the timer was started
    TAVU_FIELD(29, key_name, sak_name); // of its key, since an association number is used again
    TAVU_FIELD(93, unused, array_of<uint8_t, 3>);
};
TAVU_WIRE_LAYOUT(kay_sa_disposal_timeout_ind, 96);
static_assert(offsetof(kay_sa_disposal_timeout_ind, key_name) == 29);

// The nine handlers that the KaY gives to its MKA clients.
extern const mka_client_callbacks kay_mka_event_handlers;

void kay_handle_sa_disposal_timeout(const oka_message* message);

} // namespace tavu::kay_internal
