// Looks after the processes of a unit, forever or once.
#include <cstdio>
#include <cstdlib>
#include <unistd.h>

#include "services/common/options.h"
#include "services/oka-guard/guard.h"

namespace {

// Together a little more than a minute until a process that stands still is ended.
constexpr unsigned pause_s = 15;
constexpr unsigned patience_s = 60;

bool look_once(const std::vector<std::string>& sockets) {
    const std::vector<std::string> done = guard::look(sockets, patience_s);
    for (const std::string& line : done)
        fprintf(stderr, "oka-guard: %s\n", line.c_str());
    return done.empty();
}

} // namespace

int main(int argc, char** argv) {
    services::command command = {
        "oka-guard",
        "[--once] SOCKET...",
        "oka-guard kills processes that have not read a mailbox for a minute, so that they are started "
        "again.",
        "\nSOCKET is the socket of a mailbox in the messaging directory; one that does not exist is "
        "skipped.\n"
        "\nExit status, with --once: 0 all processes answered; 1 some did not; 2 wrong command line.\n",
        {{"once", nullptr, "look once, and exit"}},
        16};
    if (auto answer = command.read(services::arguments_of(argc, argv)))
        return services::write_answer(*answer);
    if (command.operands.empty())
        return services::write_answer(command.refuse("a socket is needed"));
    if (command.get("once").given())
        return look_once(command.operands) ? EXIT_SUCCESS : services::exit_failure;
    for (;; sleep(pause_s))
        look_once(command.operands);
}
