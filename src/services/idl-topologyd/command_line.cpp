#include "services/idl-topologyd/command_line.h"

#include "services/idl-topologyd/topologyd.h"

namespace topologyd {

namespace {

constexpr char purpose[] =
    "idl-topologyd publishes the links of the links file to qel-tavu and keeps them there.";
constexpr char more_help[] =
    "\n"
    "The links file (TOML) has a table for each link and is followed while it changes:\n"
    "  [[link]]\n"
    "  port = \"IDL_A1\"          # own port\n"
    "  id = 1                   # any number; names the link on its port\n"
    "  remote-port = \"IDL_A1\"\n"
    "  remote-mpid = 7\n"
    "  du-type = \"type-3\"       # type-3 (secured; the default) or type-2\n"
    "  status = \"up\"            # the default; any other but macsec-pending leaves it unsecured\n"
    "  hunt-path = \"mp7\"        # the remote unit's path; needed for type-3\n"
    "\n"
    "Environment:\n"
    "  OKA_DIR    directory of the messaging service (default /run/oka)\n"
    "  OKA_UNIT   this unit's name in it\n"
    "  ZEB_TRACE  trace groups to show: all, none, or a list (default error, info, state change)\n"
    "\n"
    "Exit status: 0 asked to end, or the links file is good; 1 the links file is not good, or starting "
    "failed; 2 wrong command line.\n";

} // namespace

command_line read_command_line(services::argument_list arguments) {
    services::command command = {
        "idl-topologyd",
        "[OPTION]...",
        purpose,
        more_help,
        {{"links", "FILE", "the links file (default /etc/qel-tavu/links.toml)"},
         {"check", nullptr, "say whether the links file is good, and exit"}},
    };
    command_line line;
    line.answer = command.read(arguments);
    line.links_path = command.get("links").value_or(default_links_path);
    line.only_checks = command.get("check").given();
    return line;
}

} // namespace topologyd
