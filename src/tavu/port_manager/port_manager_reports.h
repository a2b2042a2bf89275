// What clients hear of their ports: the confirm that ends a link request once its port has settled, and the
// status indications of those who subscribed.
#pragma once

#include "tavu/port_manager/port_manager_records.h"

namespace tavu::port_manager {

void set_procedure_pending(tavu_pm_data& port, request_type request, uint32_t client_id,
                           uint32_t procedure_reference);
// The port has settled: confirms the request that waited for it, if any.
void fire_oxmsi_pending_procedure_response(tavu_pm_data& port);
// Tells the port's subscribers what they do not know yet.
void fire_oxmsi_macsec_port_status_ind(const tavu_pm_data& port);
void fire_oxmsi_macsec_port_status_ind_to_client(subscriber_record& subscriber, const tavu_pm_data& port);

} // namespace tavu::port_manager
