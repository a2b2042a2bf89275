// Creates and deletes a KaY's channels and associations, always record and SecY together. What could not be
// installed leaves no record. What is deleted leaves none either, even when the SecY refused to delete it.
// Before an association is created, the values that the key server sent for it are checked.
#pragma once

#include "tavu/kay/kay_records.h"

namespace tavu::kay_internal {

// Null, after an error trace, when a value is invalid, memory is short or the SecY refuses.
[[nodiscard]] tx_sc* create_tx_sc(kay_record& kay, const sci& identifier);
[[nodiscard]] rx_sc* create_rx_sc(kay_record& kay, const sci& identifier);
// In use when they are returned. The key goes from the request to the SecY and nowhere else.
[[nodiscard]] tx_sa* create_tx_sa(kay_record& kay, tx_sc& sc, const mka_create_sa_rreq& request);
[[nodiscard]] rx_sa* create_rx_sa(kay_record& kay, rx_sc& sc, const mka_create_sa_rreq& request);

// False when the SecY refused any of it. A channel takes its associations along, a receive association its
// disposal timer.
[[nodiscard]] bool delete_tx_sa(const kay_record& kay, tx_sc& sc, tx_sa& sa);
[[nodiscard]] bool delete_rx_sa(const kay_record& kay, rx_sc& sc, rx_sa& sa);
[[nodiscard]] bool delete_all_tx_sa(const kay_record& kay, tx_sc& sc);
[[nodiscard]] bool delete_all_rx_sa(const kay_record& kay, rx_sc& sc);
[[nodiscard]] bool delete_tx_sc(kay_record& kay, tx_sc& sc);
[[nodiscard]] bool delete_rx_sc(kay_record& kay, rx_sc& sc);
[[nodiscard]] bool delete_all_tx_sc(kay_record& kay);
[[nodiscard]] bool delete_all_rx_sc(kay_record& kay);

void cancel_disposal_timer(rx_sa& sa);

// Accepts any number of 8 bits; the SecY decides which ones a channel can have.
[[nodiscard]] bool parse_an(uint32_t value, uint8_t& an);

} // namespace tavu::kay_internal
