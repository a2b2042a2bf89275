// What idl-topologyd was asked to do.
#pragma once

#include "services/common/options.h"

namespace topologyd {

struct command_line {
    std::optional<services::immediate_answer> answer{}; // then there is nothing else to do
    bool only_checks = false;                           // whether the links file is good
    std::string links_path{};
};

command_line read_command_line(services::argument_list arguments);

} // namespace topologyd
