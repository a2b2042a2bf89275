// What follows from a link for its port: which end hosts the key server, and what the CA and the key server
// are called.
#pragma once

#include "tavu/port_manager/port_manager_records.h"

namespace tavu::port_manager {

// Reads MPID; false, after an error trace, when it is not set.
[[nodiscard]] bool set_own_mp_id();
void generate_ca_name(tavu_pm_data& port);
void set_key_server_name(tavu_pm_data& port);
// Adds the port's CA to the key server of this unit, or removes it; nothing when the peer's unit hosts it.
enum class ca_change { remove = 0, add = 1 };
void configure_ca(const tavu_pm_data& port, ca_change change);

} // namespace tavu::port_manager
