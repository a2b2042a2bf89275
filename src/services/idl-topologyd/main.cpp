#include <cstdio>

#include "protocols/topology_messages.h"
#include "services/common/service.h"
#include "services/idl-topologyd/command_line.h"
#include "services/idl-topologyd/links_file.h"
#include "services/idl-topologyd/topologyd.h"

namespace {

using namespace topologyd;

const char* links_path = nullptr;

int check() {
    links_file file = read_links_file(links_path);
    for (const std::string& error : file.errors)
        fprintf(stderr, "%s\n", error.c_str());
    if (file.is_good())
        printf("%s: %zu links, good; the units at their other ends: OKA_PEERS=\"%s\"\n", links_path,
               file.links.size(), units_of(file.links).c_str());
    return file.is_good() ? 0 : services::exit_failure;
}

constexpr services::service manager = {
    .name = "idl-topologyd",
    .root_mailbox = services::topology_mailbox_name,
    .start = [](oka_mailbox root) { return topologyd_start(root, links_path); },
    .handle =
        [](const oka_message* message) {
            topologyd_dispatch_message(message);
            return true;
        },
    .stop = topologyd_stop,
};

} // namespace

int main(int argc, char** argv) {
    command_line line = read_command_line(services::arguments_of(argc, argv));
    if (line.answer)
        return services::write_answer(*line.answer);
    links_path = line.links_path.c_str();
    return line.only_checks ? check() : services::exit_status_of(services::run_service(manager));
}
