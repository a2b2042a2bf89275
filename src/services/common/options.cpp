#include "services/common/options.h"

#include <algorithm>
#include <cassert>
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

// Returns "", or what is wrong. `next` is the argument behind, or null, and may be the option's value.
std::string read_option(std::span<option> options, const std::string& argument, const char* next,
                        bool& takes_next) {
    size_t equals = argument.find('=');
    bool has_value = equals != std::string::npos;
    std::string name = argument == "-h" ? "--help" : argument.substr(0, equals);
    auto known = std::find_if(options.begin(), options.end(), [&name](const option& candidate) {
        return name == std::string("--") + candidate.name;
    });
    if (known == options.end())
        return "unknown option '" + name + "'";
    if (known->given() && !known->repeatable)
        return "option '" + name + "' is given twice";
    if (has_value && !known->argument)
        return "option '" + name + "' takes no value";
    takes_next = known->argument && !has_value;
    if (takes_next && !next)
        return "option '" + name + "' needs a value: " + usage_of(*known);
    known->values.push_back(takes_next ? next : has_value ? argument.substr(equals + 1) : "");
    return "";
}

// Returns "", or what is wrong.
std::string read_arguments(command& of, argument_list arguments) {
    bool options_ended = false;
    for (size_t i = 0; i < arguments.size(); i++) {
        std::string argument = arguments[i];
        if (options_ended || argument.size() < 2 || argument[0] != '-') {
            if (of.operands.size() == of.operands_max)
                return "unexpected argument '" + argument + "'";
            of.operands.push_back(argument);
        } else if (argument == "--") {
            options_ended = true;
        } else {
            bool takes_next = false;
            std::string wrong = read_option(
                of.options, argument, i + 1 < arguments.size() ? arguments[i + 1] : nullptr, takes_next);
            if (!wrong.empty())
                return wrong;
            i += takes_next;
        }
    }
    return "";
}

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

// Of "tavuctl status": "tavuctl".
std::string program_of(const command& of) {
    return std::string(of.name, strcspn(of.name, " "));
}

} // namespace

argument_list arguments_of(int argc, char** argv) {
    size_t names = argc > 0 ? 1 : 0;
    return {argv + names, static_cast<size_t>(argc) - names};
}

int write_answer(const immediate_answer& answer) {
    fputs(answer.text.c_str(), answer.exit_status == 0 ? stdout : stderr);
    return answer.exit_status;
}

std::optional<immediate_answer> command::read(argument_list arguments) {
    options.push_back({"help", nullptr, "show this help"});
    options.push_back({"version", nullptr, "show the version"});
    std::string wrong = read_arguments(*this, arguments);
    if (!wrong.empty())
        return refuse(wrong);
    if (get("help").given())
        return immediate_answer{0, std::string(purpose) + "\n\nUsage: " + name + " " + usage +
                                       "\n\nOptions:\n" + options_help(options) + more};
    if (get("version").given())
        return immediate_answer{0, program_of(*this) + " " + QEL_TAVU_VERSION + "\n"};
    return std::nullopt;
}

const option& command::get(std::string_view option_name) const {
    auto found = std::find_if(options.begin(), options.end(),
                              [&](const option& each) { return each.name == option_name; });
    assert(found != options.end());
    return *found;
}

immediate_answer command::refuse(const std::string& why) const {
    return {exit_usage, program_of(*this) + ": " + why + "\nTry '" + name + " --help'.\n"};
}

} // namespace services
