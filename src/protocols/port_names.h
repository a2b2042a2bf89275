// The names of a port: "IDL_A1" or "IDLA1" at the port control service and in links, "DiPort_A1" in the
// hardware layer.
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

// The spelling that people use. The other one is accepted too.
#define USUAL_PORT_NAME(name) "IDL_" #name,
constexpr const char* usual_port_names[] = {OXHAL_PORTS_OF_UNITS(USUAL_PORT_NAME)};
#undef USUAL_PORT_NAME

// Both return null when the table has no such name. Of an IDL name, at most 16 characters are compared, the
// size of a port name in messages.
const char* hardware_name_of(const char* idl_name);
const char* idl_name_of(const char* hardware_name); // in the usual spelling

// For people: "IDL_A1 IDL_B1 ...".
std::string usual_port_names_text();
// The error text when none of the hardware's ports carries a link.
std::string no_port_for_links();

} // namespace tavu
