// What oxpcsi-server was asked to do, and the service around its server and its facts.
#pragma once

#include "services/common/options.h"
#include "services/common/service.h"
#include "services/oxpcsi-server/port_control_server.h"

namespace oxpcsi {

struct settings {
    port_setting ports[ports_max];
    size_t port_count;
};

// Nothing when the service is to run with the settings; otherwise what is answered at once.
std::optional<services::immediate_answer> read_command_line(std::span<const char* const> arguments,
                                                            settings& parsed);

// Returns the exit status.
int run(const settings& chosen);

} // namespace oxpcsi
