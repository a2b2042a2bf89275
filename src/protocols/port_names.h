// What a port is called at the port control service and in links, "IDL_A1" or "IDLA1", and which port of the
// hardware layer that is, "DiPort_A1".
#pragma once

#include <string>

#include "platform/oxhal_names.h"

namespace tavu {

struct port_name_row {
    const char* idl_name;
    const char* hardware_name;
};

#define PORT_NAME_ROWS(name) {"IDL_" #name, "DiPort_" #name}, {"IDL" #name, "DiPort_" #name},
constexpr port_name_row port_name_rows[] = {OXHAL_PORTS_OF_UNITS(PORT_NAME_ROWS)};
#undef PORT_NAME_ROWS

// What people write; the other spelling is taken too.
#define USUAL_PORT_NAME(name) "IDL_" #name,
constexpr const char* usual_port_names[] = {OXHAL_PORTS_OF_UNITS(USUAL_PORT_NAME)};
#undef USUAL_PORT_NAME

// Null when the table has no such name. A name is compared over the 16 characters that a port name has.
const char* hardware_name_of(const char* idl_name);
// As people write it.
const char* idl_name_of(const char* hardware_name);

// For people: "IDL_A1 IDL_B1 ...", and what to say when none of the hardware's ports carries a link.
std::string usual_port_names_text();
std::string no_port_for_links();

} // namespace tavu
