#include "services/common/options.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace services {

namespace {

std::string usage_of(const option& described) {
    std::string usage = std::string("--") + described.name;
    if (described.argument)
        usage += std::string(" ") + described.argument;
    return usage;
}

} // namespace

bool parse_options(std::span<const char* const> arguments, std::span<option> options,
                   std::vector<std::string>& operands, std::string& error) {
    bool options_ended = false;
    for (size_t i = 0; i < arguments.size(); i++) {
        std::string argument = strcmp(arguments[i], "-h") == 0 ? "--help" : arguments[i];
        if (options_ended || argument.size() < 2 || argument[0] != '-') {
            operands.push_back(argument);
            continue;
        }
        if (argument == "--") {
            options_ended = true;
            continue;
        }
        size_t equals = argument.find('=');
        std::string name = argument.substr(0, equals);
        auto known = std::find_if(options.begin(), options.end(), [&name](const option& candidate) {
            return name == std::string("--") + candidate.name;
        });
        if (known == options.end()) {
            error = "unknown option '" + name + "'";
            return false;
        }
        if (known->given() && !known->repeatable) {
            error = "option '" + name + "' is given twice";
            return false;
        }
        std::string value;
        if (!known->argument) {
            if (equals != std::string::npos) {
                error = "option '" + name + "' takes no value";
                return false;
            }
        } else if (equals != std::string::npos) {
            value = argument.substr(equals + 1);
        } else if (i + 1 < arguments.size()) {
            value = arguments[++i];
        } else {
            error = "option '" + name + "' needs a value: " + usage_of(*known);
            return false;
        }
        known->values.push_back(value);
    }
    return true;
}

namespace {

// One line an option, in two columns.
std::string options_help(std::span<const option> options) {
    size_t width = 0;
    for (const option& described : options)
        width = std::max(width, usage_of(described).size());
    std::string help;
    for (const option& described : options) {
        std::string usage = usage_of(described);
        usage.resize(width, ' ');
        help += "  " + usage + "  " + described.help + "\n";
    }
    return help;
}

} // namespace

immediate_answer refusal(const char* program, const std::string& why) {
    std::string name(program, strcspn(program, " "));
    return {exit_usage, name + ": " + why + "\nTry '" + program + " --help'.\n"};
}

int give(const immediate_answer& answer) {
    fputs(answer.text.c_str(), answer.exit_status == 0 ? stdout : stderr);
    return answer.exit_status;
}

std::optional<immediate_answer> read_options(const program_help& of, std::span<const char* const> arguments,
                                             std::vector<option>& options,
                                             std::vector<std::string>& operands) {
    size_t help = options.size(), version = help + 1;
    options.push_back({"help", nullptr, "show this help"});
    options.push_back({"version", nullptr, "show the version"});
    std::string error;
    if (!parse_options(arguments, options, operands, error))
        return refusal(of.program, error);
    if (options[help].given())
        return immediate_answer{0, std::string(of.purpose) + "\n\nUsage: " + of.program + " " + of.usage +
                                       "\n\nOptions:\n" + options_help(options) + of.more};
    if (options[version].given())
        return immediate_answer{0, std::string(of.program, strcspn(of.program, " ")) + " " +
                                       QEL_TAVU_VERSION + "\n"};
    return std::nullopt;
}

} // namespace services
