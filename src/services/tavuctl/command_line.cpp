#include "services/tavuctl/command_line.h"

#include <array>
#include <cstdlib>

#include "services/common/options.h"
#include "services/common/unit_configuration.h"

namespace tavuctl {

namespace {

using services::option;
using arguments_span = std::span<const char* const>;

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
    "With neither set, those of /etc/qel-tavu/unit.conf hold.\n"
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

command_line refuse(const std::string& why, const char* command) {
    return answer_with(services::refusal(command, why));
}

// One level of commands: its help, its options, and what becomes of them.
struct level {
    const char* command; // "tavuctl status"
    const char* usage;   // what follows it
    const char* purpose;
    std::vector<option> options;
    std::vector<std::string> operands;

    // Something to answer at once: help, version, or what is wrong.
    std::optional<command_line> read(arguments_span arguments) {
        if (auto answer =
                services::read_options({command, usage, purpose, common_help}, arguments, options, operands))
            return answer_with(*answer);
        return std::nullopt;
    }

    const option* find(const std::string& name) const {
        for (const option& each : options) {
            if (name == each.name)
                return &each;
        }
        return nullptr;
    }

    // Puts what the option says into the command line; false when it makes no sense.
    bool read_timeout(command_line& line) const {
        const char* text = find("timeout")->value_or("10");
        char* end;
        unsigned long seconds = strtoul(text, &end, 10);
        if (*text < '0' || *text > '9' || *end != '\0' || seconds == 0 || seconds > timeout_max_s) {
            line = refuse(std::string("--timeout is '") + text + "'; it must be from 1 to " +
                              std::to_string(timeout_max_s) + " seconds",
                          command);
            return false;
        }
        line.timeout_ms = static_cast<uint32_t>(seconds) * 1000;
        return true;
    }
};

command_line read_query(action wanted, level& query, arguments_span arguments) {
    if (std::optional<command_line> answer = query.read(arguments))
        return *answer;
    if (!query.operands.empty())
        return refuse("unexpected argument '" + query.operands[0] + "'", query.command);
    command_line line;
    line.wanted = wanted;
    line.json = query.find("json")->given();
    (void)query.read_timeout(line);
    return line;
}

command_line read_status(arguments_span arguments) {
    level status{"tavuctl status",
                 "[OPTION]...",
                 "Shows every link of this unit as it is now.",
                 {json_option(), timeout_option()},
                 {}};
    return read_query(action::STATUS, status, arguments);
}

command_line read_watch(arguments_span arguments) {
    level watch{"tavuctl watch",
                "[OPTION]...",
                "Shows every link of this unit, and again whenever something changes, until interrupted.\n"
                "With --json, each picture is one line.",
                {json_option(), timeout_option()},
                {}};
    return read_query(action::WATCH, watch, arguments);
}

bool read_port(command_line& line, const std::string& port, const char* command) {
    if (port.empty() || port.size() >= sizeof line.port) {
        line = refuse("port '" + port + "': a port name has 1 to 15 characters", command);
        return false;
    }
    line.port.assign(port.c_str());
    return true;
}

bool read_link_status(command_line& line, const option& status, const char* command) {
    const char* word = status.value_or("");
    if (!status.given()) {
        line = refuse("say which status the link is to have: --status down", command);
        return false;
    }
    if (std::string(word) == "file") {
        line.status = services::topology_status_of_file;
        return true;
    }
    if (services::link_status_from_word(word, line.status))
        return true;
    line =
        refuse(std::string("--status is '") + word + "'; it must be file, " + services::link_status_words(),
               command);
    return false;
}

command_line read_link_set(arguments_span arguments) {
    level set{
        "tavuctl link set",
        "PORT --status STATUS [OPTION]...",
        "Publishes the link on PORT with another status than that of the links file, until the file\n"
        "changes that link. Only up and macsec-pending let the port be secured.",
        {{"status", "STATUS", "up, down, ... or file, to take an earlier setting back"}, timeout_option()},
        {}};
    if (std::optional<command_line> answer = set.read(arguments))
        return *answer;
    if (set.operands.empty())
        return refuse("say which port's link to set; tavuctl status shows them", set.command);
    if (set.operands.size() > 1)
        return refuse("unexpected argument '" + set.operands[1] + "'", set.command);
    command_line line;
    line.wanted = action::LINK_SET;
    if (read_port(line, set.operands[0], set.command) &&
        read_link_status(line, *set.find("status"), set.command))
        (void)set.read_timeout(line);
    return line;
}

command_line read_check(arguments_span arguments) {
    level check{
        "tavuctl check",
        "[FILE]",
        "Says whether FILE, the unit's configuration (default /etc/qel-tavu/unit.conf), is good, and if\n"
        "not, what to write in which line. idl-topologyd --check does the same for the links file.",
        {},
        {}};
    if (std::optional<command_line> answer = check.read(arguments))
        return *answer;
    if (check.operands.size() > 1)
        return refuse("unexpected argument '" + check.operands[1] + "'", check.command);
    command_line line;
    line.wanted = action::CHECK;
    line.path = check.operands.empty() ? services::unit_configuration_path : check.operands[0];
    return line;
}

struct subcommand {
    const char* name;
    command_line (*read)(arguments_span arguments);
};

// A level that has commands below it: the first argument is one of them, or an option of its own.
command_line read_commands(level& above, std::span<const subcommand> commands, arguments_span arguments) {
    if (!arguments.empty() && arguments[0][0] != '-') {
        for (const subcommand& below : commands) {
            if (std::string(arguments[0]) == below.name)
                return below.read(arguments.subspan(1));
        }
        if (std::string(arguments[0]) == "help")
            return *above.read(std::array{"--help"});
        return refuse(std::string("unknown command '") + arguments[0] + "'", above.command);
    }
    if (std::optional<command_line> answer = above.read(arguments))
        return *answer;
    return refuse("say what to do", above.command);
}

command_line read_link(arguments_span arguments) {
    level link{"tavuctl link",
               "set PORT --status STATUS",
               "Steers the links of this unit.\n\n"
               "Commands:\n"
               "  set  publish a link with another status than that of the links file",
               {},
               {}};
    constexpr subcommand commands[] = {{"set", read_link_set}};
    return read_commands(link, commands, arguments);
}

} // namespace

command_line read_command_line(arguments_span arguments) {
    level top{"tavuctl",
              "COMMAND [OPTION]...",
              "tavuctl shows and steers the links of this unit, as idl-topologyd keeps them.\n\n"
              "Commands:\n"
              "  status    show every link as it is now\n"
              "  watch     show every link, and again whenever something changes\n"
              "  link set  publish a link with another status than that of the links file\n"
              "  check     say whether the unit's configuration file is good\n"
              "Each has a --help of its own.",
              {},
              {}};
    constexpr subcommand commands[] = {
        {"status", read_status}, {"watch", read_watch}, {"link", read_link}, {"check", read_check}};
    return read_commands(top, commands, arguments);
}

} // namespace tavuctl
