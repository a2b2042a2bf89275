#include <cstdio>

#include "platform/oka_timer.h"
#include "platform/zeb.h"
#include "protocols/topology_messages.h"
#include "services/idl-topologyd/command_line.h"
#include "services/idl-topologyd/links_file.h"
#include "services/idl-topologyd/topologyd.h"

namespace {

using namespace topologyd;

int check(const char* path) {
    links_file file = read_links_file(path);
    for (const std::string& error : file.errors)
        fprintf(stderr, "%s\n", error.c_str());
    if (file.is_good())
        printf("%s: %zu links, good\n", path, file.links.size());
    return file.is_good() ? 0 : 1;
}

int run(const char* links_path) {
    (void)zeb_init();
    zeb_register_thread_name("idl-topologyd");
    if (!oka_timer_service_init() || oka_init(37, 0, 0, 0, 0) != 0)
        return 1;
    oka_mailbox mailbox = oka_create_mailbox(services::topology_mailbox_name, 0);
    if (mailbox == OKA_MAILBOX_NONE) {
        fprintf(stderr, "idl-topologyd: cannot start: the unit may have one already, or the directory that "
                        "OKA_DIR names is not ours to write\n");
        return 1;
    }
    if (!topologyd_start(mailbox, links_path))
        return 1;
    while (oka_message* message = oka_receive(nullptr, OKA_WAIT_FOREVER, OKA_ANY_SENDER)) {
        topologyd_dispatch_message(message);
        oka_free(&message);
    }
    return 1;
}

} // namespace

int main(int argc, char** argv) {
    command_line line = read_command_line({argv + 1, static_cast<size_t>(argc > 0 ? argc - 1 : 0)});
    switch (line.wanted) {
    case action::RUN:
        return run(line.links_path.c_str());
    case action::CHECK:
        return check(line.links_path.c_str());
    case action::TELL:
        fputs(line.text.c_str(), stdout);
        return 0;
    case action::REFUSE:
        fprintf(stderr, "idl-topologyd: %s\nTry 'idl-topologyd --help'.\n", line.text.c_str());
        return 2;
    }
    return 2;
}
