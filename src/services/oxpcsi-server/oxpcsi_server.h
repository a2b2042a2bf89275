// The port control service of a plain Linux node: the process around the server and its facts.
#pragma once

#include "services/oxpcsi-server/port_control_server.h"

namespace oxpcsi {

constexpr int exit_failure = 1;
constexpr int exit_usage = 2;

struct settings {
    port_setting ports[ports_max];
    size_t port_count;
};

enum class command { serve, end_well, end_with_usage };

// What the command line asks for. Help and version go to stdout, complaints to stderr.
command parse_command_line(int argc, const char* const* argv, settings& parsed);

// Returns the exit status.
int run(int argc, const char* const* argv);

} // namespace oxpcsi
