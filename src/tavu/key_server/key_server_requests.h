// What the key server sends to its members, and the requests whose confirmation it awaits: each is guarded by
// a timer of 5000 ms.
#pragma once

#include "tavu/key_server/key_server_records.h"

namespace tavu::keysrv {

// True when the message was sent and, for requests that await a confirmation, the wait was recorded.
[[nodiscard]] bool ks_send_join_ca_cfm(const ca_member& member, uint32_t procedure_reference,
                                       uint32_t standard);
[[nodiscard]] bool ks_send_join_ca_rej_by_client_id(uint32_t client_id, uint32_t procedure_reference,
                                                    uint32_t reason);
[[nodiscard]] bool ks_send_leave_ca_rreq(const ca_member& member, uint32_t procedure_reference);
[[nodiscard]] bool ks_send_leave_ca_cfm(const ca_member& member, uint32_t procedure_reference);
[[nodiscard]] bool ks_send_create_tx_sc_cfm(const ca_member& member, uint32_t procedure_reference);
[[nodiscard]] bool ks_send_create_tx_sc_rej(const ca_member& member, uint32_t procedure_reference,
                                            uint32_t reason);
[[nodiscard]] bool ks_send_create_rx_sc_rreq(const ca_member& member, const sci& peer,
                                             uint32_t procedure_reference);
// The SA requests carry the SAK of the record, as the peer's key and as the member's own.
[[nodiscard]] bool ks_send_create_rx_sa_rreq(const ca_member& member, const sak_record& sak,
                                             uint32_t procedure_reference);
[[nodiscard]] bool ks_send_create_tx_sa_rreq(const ca_member& member, const sak_record& sak,
                                             uint32_t procedure_reference);
[[nodiscard]] bool ks_send_update_protect_rreq(const ca_member& member, bool protect_frames,
                                               uint32_t procedure_reference);

// The confirmation has come, or a rejection.
void delete_timeout_on_msg(uint32_t client_id, uint32_t procedure_reference);
// The wait is over without one, and its timer has expired.
void forget_expired_timeout_on_msg(uint32_t client_id, uint32_t procedure_reference);
void delete_all_waiting_msg_for_ca(const connectivity_association& ca);
void delete_all_waiting_msg();

} // namespace tavu::keysrv
