// The command line of the node's programs: long options, operands, and help in one form for all of them.
// What an option means is its program's business.
#pragma once

#include <cstdio>
#include <span>
#include <string>
#include <vector>

namespace services {

struct option {
    const char* name;     // without the leading "--"
    const char* argument; // what the help calls its value; null when it takes none
    const char* help;
    bool repeatable = false;
    std::vector<std::string> values = {}; // one for each time it was given, "" when it takes none

    bool given() const { return !values.empty(); }
    // Its value, or what holds without it.
    const char* value_or(const char* otherwise) const { return given() ? values[0].c_str() : otherwise; }
};

// Takes "--name value", "--name=value" and "--name"; "--" ends the options. What is no option goes to
// `operands`, in order. False, with what is wrong in `error`, for an option that is unknown, given twice
// though it is not repeatable, without its value, or with one that it does not take.
[[nodiscard]] bool parse_options(std::span<const char* const> arguments, std::span<option> options,
                                 std::vector<std::string>& operands, std::string& error);

// One line an option, in two columns.
std::string options_help(std::span<const option> options);

const char* project_version();

} // namespace services
