// The command lines of the node's programs: options, operands, help, version and refusals in one form. Each
// program gives its options their meaning.
#pragma once

#include <optional>
#include <span>
#include <string>
#include <vector>

namespace services {

// The exit statuses of all programs; 0 is success.
constexpr int exit_failure = 1;
constexpr int exit_usage = 2;

using argument_list = std::span<const char* const>;

// What main was given, without the program's name.
argument_list arguments_of(int argc, char** argv);

struct option {
    const char* name;     // without the leading "--"
    const char* argument; // what the help calls its value; null when it takes none
    const char* help;
    bool repeatable = false;
    std::vector<std::string> values = {}; // one for each time it was given, "" when it takes none

    bool given() const { return !values.empty(); }
    // Its first value, or `otherwise` when it was not given.
    const char* value_or(const char* otherwise) const { return given() ? values[0].c_str() : otherwise; }
};

// A text with which a program answers its command line instead of running: help, version, or what is wrong.
struct immediate_answer {
    int exit_status; // 0, or exit_usage
    std::string text;
};

// To standard output, or to standard error when something is wrong. Returns the exit status.
int write_answer(const immediate_answer& answer);

// A program, or one command of a program.
struct command {
    const char* name;    // "idl-topologyd", "tavuctl status"
    const char* usage;   // of its arguments
    const char* purpose; // one or more lines, without the last line's end
    const char* more;    // what the help says after the options
    std::vector<option> options;
    size_t operands_max = 0;
    std::vector<std::string> operands = {};

    // Reads "--name value", "--name=value" and "--name"; after "--" all are operands. Answers --help, -h,
    // --version, and a command line that is wrong: an option is unknown, given twice though it is not
    // repeatable, lacks its value, or has one that it does not take; or there are too many operands.
    [[nodiscard]] std::optional<immediate_answer> read(argument_list arguments);

    // One of its options.
    const option& get(std::string_view option_name) const;

    immediate_answer refuse(const std::string& why) const;
};

} // namespace services
