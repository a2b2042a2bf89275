// A KaY's state, and the three values derived from it, the role and the SecY: port valid, controlled port
// operational state, encryption state. Whatever changes one of the inputs calls update_kay_data afterwards,
// which reports to the port manager what changed.
#pragma once

#include "tavu/kay/kay_records.h"

namespace tavu::kay_internal {

// Takes the state, which may be the current one, derives the values and reports. Nothing is reported while
// the KaY is being created, nor on the way to UNAUTHENTICATED, whose outcome the port manager reads itself.
void update_kay_data(kay_record& kay, kay_state state);

void fill_kay_state_change_ind(const kay_record& kay, kay_state_change_ind& indication);

// Takes the channels, the SecY and the MKA client back to nothing; the key server is not told. False when the
// SecY refused any of it. Standard, cipher suite and frame protection stay as they were set.
[[nodiscard]] bool clear_kay_data(kay_record& kay);

// The end of every attempt that went wrong: clears, reports the failure, and leaves what comes next to the
// port manager. Deletes the MKA client, even when that is the caller.
void handle_failure(kay_record& kay);

} // namespace tavu::kay_internal
