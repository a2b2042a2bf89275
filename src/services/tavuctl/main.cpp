#include <cstdio>
#include <cstdlib>

#include <unistd.h>

#include "services/common/service.h"
#include "services/common/unit_configuration.h"
#include "services/tavuctl/session.h"

namespace {

using namespace tavuctl;

void write_to(FILE* stream, const std::string& text) {
    fwrite(text.data(), 1, text.size(), stream);
    // Nobody reads any more: a watch would go on for ever.
    if (fflush(stream) != 0)
        exit(EXIT_STATUS_FAILED);
}

void write_output(const std::string& text) {
    write_to(stdout, text);
}
void write_error(const std::string& text) {
    write_to(stderr, text);
}

int check(const char* path) {
    services::unit_configuration configuration = services::read_unit_configuration(path);
    for (const std::string& error : configuration.errors)
        write_error(error + "\n");
    if (configuration.is_good())
        write_output(std::string(path) + ": good\n");
    return configuration.is_good() ? EXIT_STATUS_DONE : EXIT_STATUS_FAILED;
}

// Who does not say which unit is meant, means the one that this host is configured to be.
void take_configured_unit() {
    if (getenv("OKA_DIR") || getenv("OKA_UNIT"))
        return;
    for (const services::variable& each :
         services::read_unit_configuration(services::unit_configuration_path).variables) {
        if (each.name.starts_with("OKA_"))
            setenv(each.name.c_str(), each.value.c_str(), 0);
    }
}

int converse(const command_line& line) {
    // Only what a person can use is said; the services' traces appear when they are asked for.
    setenv("ZEB_TRACE", "error", 0);
    take_configured_unit();
    if (!services::start_platform("tavuctl")) {
        write_error("tavuctl: the messaging service cannot be used; see the reason above, and whether this "
                    "user may use the directory that OKA_DIR names\n");
        return EXIT_STATUS_UNREACHABLE;
    }
    std::string name = "tavuctl-" + std::to_string(getpid());
    oka_mailbox mailbox = oka_create_mailbox(name.c_str(), 0);
    if (mailbox == OKA_MAILBOX_NONE) {
        write_error("tavuctl: the unit's directory cannot be written; check OKA_DIR, OKA_UNIT and this "
                    "user's rights there\n");
        return EXIT_STATUS_UNREACHABLE;
    }
    session_callbacks callbacks = {write_output, write_error, isatty(STDOUT_FILENO) == 1};
    session_start(mailbox, line, &callbacks);
    while (session_get_state() != SESSION_STATE_DONE) {
        oka_message* message = oka_receive(nullptr, OKA_WAIT_FOREVER, OKA_ANY_SENDER);
        if (!message) // interrupted
            return line.wanted == action::WATCH ? EXIT_STATUS_DONE : EXIT_STATUS_FAILED;
        session_dispatch_message(message);
        oka_free(&message);
    }
    oka_exit();
    return session_exit_status();
}

} // namespace

int main(int argc, char** argv) {
    command_line line = read_command_line({argv + 1, static_cast<size_t>(argc > 0 ? argc - 1 : 0)});
    switch (line.wanted) {
    case action::ANSWER:
        return services::give(line.answer);
    case action::CHECK:
        return check(line.path.c_str());
    case action::STATUS:
    case action::WATCH:
    case action::LINK_SET:
        break;
    }
    return converse(line);
}
