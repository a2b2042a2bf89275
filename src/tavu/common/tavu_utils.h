// What every module shares: texts of booleans and SCIs, and the map from the names of the port control
// service to the ports of the hardware layer.
#pragma once

#include <cstdint>

#include "base/enum_text.h"
#include "base/wire.h"

namespace tavu {

const char* bool_to_str(bool value);

// Writes "SCI = { MAC = 00:11:22:33:44:55 , port identifier = 1 }" with its NUL.
void sci_to_str1(char (&output)[128], const sci& identifier);
// The same text in one shared buffer: valid until the next call, so no trace uses it twice.
const char* sci_to_str2(const sci& identifier);

// Brings up the hardware layer and copies its virtual ports into a table that lives until the process
// ends. False, after an error trace, when the layer does not come up or memory is short.
[[nodiscard]] bool initialize_oxhal();

// The hardware layer's name of an IDL port ("DiPort_A1" for "IDL_A1" or "IDLA1") with its NUL. False,
// after an error trace, for a name that the map does not have.
[[nodiscard]] bool get_port_handle_by_idl_port_name(const char* idl_port_name, char (&hardware_name)[16]);

// The handle under which the hardware layer addresses an IDL port. False for an unknown name, and, without
// a trace, for a known one that this hardware does not have.
[[nodiscard]] bool idl_port_name_to_port_handle(const char* idl_port_name, uint32_t& port_handle);

} // namespace tavu
