#include "services/tavuctl/command_line.h"

#include <array>
#include <cstdlib>

#include "services/common/options.h"
#include "services/common/unit_configuration.h"

namespace tavuctl {

namespace {

using services::argument_list;
using services::command;
using services::option;

constexpr uint32_t timeout_max_s = 86400;

option json_option() {
    return {"json", nullptr, "print JSON instead of text"};
}
option timeout_option() {
    return {"timeout", "SECONDS", "how long to wait for the answer (default 10)"};
}

constexpr const char* common_help =
    "\n"
    "Environment:\n"
    "  OKA_DIR   directory of the messaging service (default /run/oka)\n"
    "  OKA_UNIT  this unit's name in it\n"
    "If neither is set, both are taken from /etc/qel-tavu/unit.conf.\n"
    "\n"
    "Exit status:\n"
    "  0  done\n"
    "  1  refused, or failed\n"
    "  2  wrong command line\n"
    "  3  no topology manager answers\n"
    "  4  not confirmed in time; the setting is kept and takes effect when it can\n";

command_line answer_with(services::immediate_answer answer) {
    command_line line;
    line.answer = std::move(answer);
    return line;
}

command_line refuse(const command& refused, const std::string& why) {
    return answer_with(refused.refuse(why));
}

// False when the line answers a value that is not possible.
bool read_timeout(command_line& line, const command& of) {
    const char* text = of.get("timeout").value_or("10");
    char* end;
    unsigned long seconds = strtoul(text, &end, 10);
    if (*text < '0' || *text > '9' || *end != '\0' || seconds == 0 || seconds > timeout_max_s) {
        line = refuse(of, std::string("--timeout is '") + text + "'; it must be from 1 to " +
                              std::to_string(timeout_max_s) + " seconds");
        return false;
    }
    line.timeout_ms = static_cast<uint32_t>(seconds) * 1000;
    return true;
}

command_line read_query(action wanted, command& query, argument_list arguments) {
    if (auto answer = query.read(arguments))
        return answer_with(*answer);
    command_line line;
    if (read_timeout(line, query)) {
        line.wanted = wanted;
        line.json = query.get("json").given();
    }
    return line;
}

command_line read_status(argument_list arguments) {
    command status{"tavuctl status",
                   "[OPTION]...",
                   "Shows every link of this unit as it is now.",
                   common_help,
                   {json_option(), timeout_option()}};
    return read_query(action::status, status, arguments);
}

command_line read_watch(argument_list arguments) {
    command watch{"tavuctl watch",
                  "[OPTION]...",
                  "Shows every link of this unit, and again whenever something changes, until interrupted.\n"
                  "With --json, it prints one line each time.",
                  common_help,
                  {json_option(), timeout_option()}};
    return read_query(action::watch, watch, arguments);
}

// False when the line answers a name that is not possible.
bool read_port(command_line& line, const command& of) {
    const std::string& port = of.operands[0];
    if (port.empty() || port.size() >= sizeof line.port) {
        line = refuse(of, "port '" + port + "': a port name has 1 to 15 characters");
        return false;
    }
    line.port.assign(port.c_str());
    return true;
}

// False when the line answers a status that is missing or not possible.
bool read_link_status(command_line& line, const command& of) {
    const option& status = of.get("status");
    if (!status.given()) {
        line = refuse(of, "say which status the link is to have: --status down");
        return false;
    }
    const std::string& word = status.values[0];
    if (word == "file") {
        line.status = services::topology_status_of_file;
        return true;
    }
    if (services::link_status_from_word(word.c_str(), line.status))
        return true;
    line = refuse(of, "--status is '" + word + "'; it must be file, " + services::link_status_words());
    return false;
}

command_line read_link_set(argument_list arguments) {
    command set{
        "tavuctl link set",
        "PORT --status STATUS [OPTION]...",
        "Publishes the link on PORT with another status than that of the links file, until the file\n"
        "changes that link. Only up and macsec-pending let the port be secured.",
        common_help,
        {{"status", "STATUS", "up, down, ... or file, to take an earlier setting back"}, timeout_option()},
        1};
    if (auto answer = set.read(arguments))
        return answer_with(*answer);
    if (set.operands.empty())
        return refuse(set, "say which port's link to set; tavuctl status shows them");
    command_line line;
    if (read_port(line, set) && read_link_status(line, set) && read_timeout(line, set))
        line.wanted = action::link_set;
    return line;
}

command_line read_check(argument_list arguments) {
    command check{
        "tavuctl check",
        "[FILE]",
        "Says whether FILE, the unit's configuration (default /etc/qel-tavu/unit.conf), is good, and if\n"
        "not, what to write in which line. idl-topologyd --check does the same for the links file.",
        common_help,
        {},
        1};
    if (auto answer = check.read(arguments))
        return answer_with(*answer);
    command_line line;
    line.wanted = action::check;
    line.path = check.operands.empty() ? services::unit_configuration_path : check.operands[0];
    return line;
}

struct subcommand {
    const char* name;
    command_line (*read)(argument_list arguments);
};

// Of a command that has others below it: the first argument is the name of one, or an option of its own.
command_line read_commands(command& above, std::span<const subcommand> commands, argument_list arguments) {
    if (!arguments.empty() && arguments[0][0] != '-') {
        std::string name = arguments[0];
        for (const subcommand& below : commands) {
            if (name == below.name)
                return below.read(arguments.subspan(1));
        }
        if (name == "help")
            return answer_with(*above.read(std::array{"--help"}));
        return refuse(above, "unknown command '" + name + "'");
    }
    if (auto answer = above.read(arguments))
        return answer_with(*answer);
    return refuse(above, "say what to do");
}

command_line read_link(argument_list arguments) {
    command link{"tavuctl link",
                 "set PORT --status STATUS",
                 "Controls the links of this unit.\n\n"
                 "Commands:\n"
                 "  set  publish a link with another status than that of the links file",
                 common_help,
                 {}};
    constexpr subcommand commands[] = {{"set", read_link_set}};
    return read_commands(link, commands, arguments);
}

} // namespace

command_line read_command_line(argument_list arguments) {
    command top{"tavuctl",
                "COMMAND [OPTION]...",
                "tavuctl shows and controls the links of this unit. It asks idl-topologyd.\n\n"
                "Commands:\n"
                "  status    show every link as it is now\n"
                "  watch     show every link, and again whenever something changes\n"
                "  link set  publish a link with another status than that of the links file\n"
                "  check     say whether the unit's configuration file is good\n"
                "Each has a --help of its own.",
                common_help,
                {}};
    constexpr subcommand commands[] = {
        {"status", read_status}, {"watch", read_watch}, {"link", read_link}, {"check", read_check}};
    return read_commands(top, commands, arguments);
}

} // namespace tavuctl
