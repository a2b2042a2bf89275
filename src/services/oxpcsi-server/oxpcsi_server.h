// The program oxpcsi-server: its command line, and the service that it runs.
#pragma once

#include "services/common/options.h"
#include "services/common/service.h"
#include "services/oxpcsi-server/port_control_server.h"

namespace oxpcsi {

struct settings {
    port_setting ports[ports_max];
    size_t port_count;
};

// Returns nothing when the service is to run with the settings, otherwise the answer to the command line.
std::optional<services::immediate_answer> read_command_line(services::argument_list arguments,
                                                            settings& parsed);

// Returns the exit status.
int run(const settings& chosen);

} // namespace oxpcsi
