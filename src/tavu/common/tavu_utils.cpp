#include "tavu/common/tavu_utils.h"

#include <cstring>

#include "base/record_list.h"
#include "base/trace.h"
#include "platform/oxhal.h"
#include "protocols/port_names.h"

namespace tavu {

namespace {

static_assert(sizeof(oxhal_vport) == 108 && offsetof(oxhal_vport, name) == 8);

record_list<oxhal_vport> virtual_ports;

} // namespace

const char* bool_to_str(bool value) {
    return value ? "true" : "false";
}

void sci_to_str1(char (&output)[128], const sci& identifier) {
    const uint8_t* octet = identifier.octets;
    snprintf(output, sizeof output, "SCI = { MAC = %02x:%02x:%02x:%02x:%02x:%02x , port identifier = %u }",
             octet[0], octet[1], octet[2], octet[3], octet[4], octet[5], octet[6] * 256u + octet[7]);
}

const char* sci_to_str2(const sci& identifier) {
    static char buffer[128];
    sci_to_str1(buffer, identifier);
    return buffer;
}

bool initialize_oxhal() {
    TAVU_FUNCTION();
    TRACE("TAVU: Initializing OXHAL");
    int result = oxhal_init();
    if (result != 0) {
        TRACE_ERROR("TAVU: Failed to initialize OXHAL: %i", result);
        return false;
    }

    TRACE("TAVU: Fetching all virtual ports from OXHAL");
    oxhal_vport port;
    for (uint32_t index = 0; oxhal_vport_iterate(index, &port) == 0; index++) {
        oxhal_vport* entry = virtual_ports.add();
        if (!entry)
            return false;
        *entry = port;
    }
    return true;
}

bool get_port_handle_by_idl_port_name(const char* idl_port_name, char (&hardware_name)[16]) {
    TAVU_FUNCTION();
    const char* mapped = hardware_name_of(idl_port_name);
    if (!mapped) {
        TRACE_ERROR("TAVU: Cannot map IDL port name '%s' to DiPort name", idl_port_name);
        return false;
    }
    snprintf(hardware_name, sizeof hardware_name, "%s", mapped);
    TRACE("TAVU: IDLe port name '%s' -> DiPort name '%s'", idl_port_name, hardware_name);
    return true;
}

bool idl_port_name_to_port_handle(const char* idl_port_name, uint32_t& port_handle) {
    TAVU_FUNCTION();
    char hardware_name[16];
    if (!get_port_handle_by_idl_port_name(idl_port_name, hardware_name))
        return false;
    const oxhal_vport* port = virtual_ports.find([&](const oxhal_vport& candidate) {
        return strncmp(candidate.name, hardware_name, sizeof candidate.name) == 0;
    });
    if (!port)
        return false;
    port_handle = port->handle;
    return true;
}

} // namespace tavu
