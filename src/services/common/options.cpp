#include "services/common/options.h"

#include <algorithm>
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
        std::string argument = arguments[i];
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

const char* project_version() {
    return QEL_TAVU_VERSION;
}

} // namespace services
