// What tavuctl was asked to do.
#pragma once

#include <string>

#include "protocols/topology_messages.h"
#include "services/common/options.h"

namespace tavuctl {

// Part of the program's interface.
enum exit_status {
    EXIT_STATUS_DONE = 0,
    EXIT_STATUS_FAILED = services::exit_failure,
    EXIT_STATUS_USAGE = services::exit_usage,
    EXIT_STATUS_UNREACHABLE = 3,
    EXIT_STATUS_UNCONFIRMED = 4,
};

enum class action {
    answer, // write `answer`: help, version, or what is wrong with the command line
    status,
    watch,
    link_set,
    check,
};

struct command_line {
    action wanted = action::answer;
    services::immediate_answer answer = {};
    std::string path = {}; // check: the configuration file
    bool json = false;
    uint32_t timeout_ms = 0;
    services::port_name port = {}; // link_set
    uint32_t status = 0;           // link_set: as in the request
};

command_line read_command_line(services::argument_list arguments);

} // namespace tavuctl
