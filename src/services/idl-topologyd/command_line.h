// What idl-topologyd was asked to do.
#pragma once

#include "services/common/options.h"

namespace topologyd {

struct command_line {
    std::optional<services::immediate_answer> answer{}; // then nothing else is to be done
    bool only_checks = false;                           // whether the links file is good
    std::string links_path{};
};

command_line read_command_line(std::span<const char* const> arguments);

} // namespace topologyd
