// The view of a SecY comes from the driver that OXHAL_DRIVER names.
#include "platform/oxhal_view.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "platform/oxhal/macsec_view.h"
#include "platform/oxhal/secy.h"
#include "platform/oxhal/sim_view.h"

namespace {

const char* variable(const char* name) {
    const char* value = getenv(name);
    return value ? value : "";
}

// The controlled port of that virtual port, as OXHAL_PORTS names it; null if there is none.
const char* controlled_port_of(const char* port_name) {
    static const oxhal::port_list list = [] {
        oxhal::port_list read = {};
        if (oxhal::read_ports(variable("OXHAL_PORTS"), read) != 0)
            read.count = 0;
        return read;
    }();
    for (uint32_t i = 0; i < list.count; ++i) {
        if (!strcmp(list.ports[i].name, port_name))
            return list.ports[i].controlled_port;
    }
    return nullptr;
}

} // namespace

int oxhal_view_get(const char* port_name, oxhal_view* view) {
    *view = {};
    if (!strcmp(variable("OXHAL_DRIVER"), oxhal::sim_driver_name))
        return oxhal_sim::read_view(port_name, *view);
    const char* controlled_port = controlled_port_of(port_name);
    return controlled_port ? oxhal::kernel::read_view(controlled_port, *view) : ENOENT;
}
