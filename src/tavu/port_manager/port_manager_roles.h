// The decision and its execution: which role a port takes, how it gets there, and what happens when it fails.
#pragma once

#include "tavu/port_manager/port_manager_records.h"

namespace tavu::port_manager {

[[nodiscard]] bool set_port_role(tavu_pm_data& port, macsec_role role);
void set_port_roles(macsec_role role);
// Turns what is known of the port into action: the one place where that happens. Runs after every change of
// the port's state or link, and when a retry is due.
void update_state_and_role(tavu_pm_data& port, const oxpcsi_port_data& port_data);
void stop_retry_timer(tavu_pm_data& port);
void tavu_pm_handle_retry_timeout(const oka_message* message);
void handle_kay_state_change_ind(const char* name, const kay_state_change_ind& indication);

} // namespace tavu::port_manager
