// What idl-topologyd was asked to do.
#pragma once

#include <span>
#include <string>

namespace topologyd {

enum class action {
    RUN,
    CHECK, // whether the links file is good
    TELL,  // print `text`: help or version
    REFUSE // print `text`, what is wrong with the command line
};

struct command_line {
    action wanted;
    std::string links_path;
    std::string text;
};

command_line read_command_line(std::span<const char* const> arguments);

} // namespace topologyd
