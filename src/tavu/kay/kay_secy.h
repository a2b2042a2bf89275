// The SecY driver: the only place where the KaY touches the MACsec hardware. Small operations that each make
// one or two calls of the hardware layer for one port, trace what they do and what failed, and decide
// nothing: error codes are printed, not interpreted, nothing is retried.
#pragma once

#include "platform/oxhal.h"
#include "tavu/kay/kay_records.h"

namespace tavu::kay_internal {

// Prepares the MACsec block, once per process.
[[nodiscard]] bool kay_secy_macsec_init();

// Reads what the SecY can do into the KaY's record. A SecY without IEEE 802.1AE-2006 is no error: the port
// then does not support MACsec.
[[nodiscard]] bool kay_secy_get_capabilities(kay_record& kay);
[[nodiscard]] bool kay_secy_is_macsec_supported(const kay_record& kay);
[[nodiscard]] bool kay_secy_is_standard_supported(const kay_record& kay, mka_standard standard);
[[nodiscard]] bool kay_secy_is_cipher_supported(const kay_record& kay, mka_standard standard,
                                                mka_cipher cipher);

// Traces whether `who`, the KaY or the SecY, supports the standard of the CA.
void trace_standard_support(const kay_record& kay, mka_standard standard, const char* who, bool supported);

[[nodiscard]] bool kay_secy_create_tx_sc(const kay_record& kay, const tx_sc& sc);
[[nodiscard]] bool kay_secy_create_rx_sc(const kay_record& kay, const rx_sc& sc);
[[nodiscard]] bool kay_secy_delete_tx_sc(const kay_record& kay, const tx_sc& sc);
[[nodiscard]] bool kay_secy_delete_rx_sc(const kay_record& kay, const rx_sc& sc);

// Installs an association and puts it in use; one that cannot be put in use is removed again. The key is not
// kept.
[[nodiscard]] bool kay_secy_create_enable_tx_sa(const kay_record& kay, const tx_sc& sc, const tx_sa& sa,
                                                uint32_t next_packet_number, bool confidentiality,
                                                const oxhal_macsec_key& key);
[[nodiscard]] bool kay_secy_create_enable_rx_sa(const kay_record& kay, const rx_sc& sc, const rx_sa& sa,
                                                uint32_t lowest_packet_number, const oxhal_macsec_key& key);
[[nodiscard]] bool kay_secy_delete_tx_sa(const kay_record& kay, const tx_sc& sc, const tx_sa& sa);
[[nodiscard]] bool kay_secy_delete_rx_sa(const kay_record& kay, const rx_sc& sc, const rx_sa& sa);
// False, too, when the SecY does not tell.
[[nodiscard]] bool kay_secy_tx_sa_in_use(const kay_record& kay, const tx_sc& sc, const tx_sa& sa);
[[nodiscard]] bool kay_secy_rx_sa_in_use(const kay_record& kay, const rx_sc& sc, const rx_sa& sa);

[[nodiscard]] bool kay_secy_set_protect_frames(const kay_record& kay, bool protect);

// What the KaY does with the whole port. On a SecY without MACsec they succeed and touch nothing.
[[nodiscard]] bool enable_macsec_cp(const kay_record& kay);
// Clear frames both ways and no channels. Goes through all of it, also when a step fails.
[[nodiscard]] bool disable_macsec(const kay_record& kay);
// Applies the configuration options, up to the first that fails. Whether frames are protected is not one of
// them: the key server decides that.
[[nodiscard]] bool apply_macsec_configuration(const kay_record& kay);

} // namespace tavu::kay_internal
