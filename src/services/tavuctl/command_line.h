// What tavuctl was asked to do.
#pragma once

#include <optional>
#include <span>
#include <string>

#include "protocols/topology_messages.h"
#include "services/common/options.h"

namespace tavuctl {

// Part of the program's interface.
enum exit_status {
    EXIT_STATUS_DONE = 0,
    EXIT_STATUS_FAILED = 1,
    EXIT_STATUS_USAGE = 2,
    EXIT_STATUS_UNREACHABLE = 3,
    EXIT_STATUS_UNCONFIRMED = 4,
};

enum class action {
    STATUS,
    WATCH,
    LINK_SET,
    CHECK,
    ANSWER, // give `answer`: help, version, or what is wrong with the command line
};

struct command_line {
    action wanted = action::ANSWER;
    services::immediate_answer answer = {};
    std::string path = {}; // CHECK: the configuration file
    bool json = false;
    uint32_t timeout_ms = 0;
    services::port_name port = {}; // LINK_SET
    uint32_t status = 0;           // LINK_SET: as in the request
};

command_line read_command_line(std::span<const char* const> arguments);

} // namespace tavuctl
