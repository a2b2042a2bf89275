// The command line of the node's programs: long options, operands, and help in one form for all of them.
// What an option means is its program's business.
#pragma once

#include <optional>
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

// Takes "--name value", "--name=value" and "--name", and "-h" for "--help"; "--" ends the options. What is no
// option goes to `operands`, in order. False, with what is wrong in `error`, for an option that is unknown,
// given twice though it is not repeatable, without its value, or with one that it does not take.
[[nodiscard]] bool parse_options(std::span<const char* const> arguments, std::span<option> options,
                                 std::vector<std::string>& operands, std::string& error);

// What a program says to a command line that it answers at once: its help, its version, or what is wrong.
struct immediate_answer {
    int exit_status; // 0, or exit_usage
    std::string text;
};
constexpr int exit_usage = 2;

immediate_answer refusal(const char* program, const std::string& why);
// Writes it to where it belongs, and returns its exit status.
int give(const immediate_answer& answer);

struct program_help {
    const char* program; // as it is called: "idl-topologyd", "tavuctl status"
    const char* usage;   // what follows
    const char* purpose;
    const char* more; // behind the options
};

// Reads the options, to which --help (-h too) and --version are added, and answers these and what is wrong.
[[nodiscard]] std::optional<immediate_answer> read_options(const program_help& of,
                                                           std::span<const char* const> arguments,
                                                           std::vector<option>& options,
                                                           std::vector<std::string>& operands);

} // namespace services
