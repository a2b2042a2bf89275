#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <unistd.h>

#include "services/common/service.h"
#include "services/common/unit_configuration.h"
#include "services/tavuctl/session.h"

namespace {

using namespace tavuctl;

struct {
    command_line line;
    bool is_output_lost = false;
} self;

void write_to(FILE* stream, const std::string& text) {
    fwrite(text.data(), 1, text.size(), stream);
    if (fflush(stream) != 0)
        self.is_output_lost = true;
}

void write_output(const std::string& text) {
    write_to(stdout, text);
}
void write_error(const std::string& text) {
    write_to(stderr, text);
}

int check() {
    services::unit_configuration configuration = services::read_unit_configuration(self.line.path.c_str());
    for (const std::string& error : configuration.errors)
        write_error(error + "\n");
    if (configuration.is_good())
        write_output(self.line.path + ": good\n");
    return configuration.is_good() ? EXIT_STATUS_DONE : EXIT_STATUS_FAILED;
}

// Unless the environment names a unit, it is the one of this host's configuration. What is asked for stays
// within the host, whatever leads to others.
void take_configured_unit() {
    if (getenv("OKA_DIR") || getenv("OKA_UNIT"))
        return;
    for (const services::variable& each :
         services::read_unit_configuration(services::unit_configuration_path).variables) {
        if (each.name == "OKA_DIR" || each.name == "OKA_UNIT")
            setenv(each.name.c_str(), each.value.c_str(), 0);
    }
}

bool start(oka_mailbox mailbox) {
    const session_callbacks callbacks = {write_output, write_error, isatty(STDOUT_FILENO) == 1};
    session_start(mailbox, self.line, &callbacks);
    return true;
}

// A watch ends when nobody reads its output any more.
bool handle(const oka_message* message) {
    session_dispatch_message(message);
    return session_get_state() != SESSION_STATE_DONE && !self.is_output_lost;
}

int converse() {
    signal(SIGPIPE, SIG_IGN); // writing fails instead
    // The traces are for a developer, who asks for them; a person gets errors only.
    setenv("ZEB_TRACE", "error", 0);
    take_configured_unit();
    std::string mailbox = "tavuctl-" + std::to_string(getpid());
    switch (services::run_service({"tavuctl", mailbox.c_str(), start, handle, session_stop})) {
    case services::service_end::not_started:
        write_error("tavuctl: the messaging service cannot be used; see the reason above, and check OKA_DIR, "
                    "OKA_UNIT and this user's rights there\n");
        return EXIT_STATUS_UNREACHABLE;
    case services::service_end::asked:
        return self.line.wanted == action::watch ? EXIT_STATUS_DONE : EXIT_STATUS_FAILED;
    case services::service_end::by_itself:
        break;
    }
    return self.is_output_lost ? EXIT_STATUS_FAILED : session_exit_status();
}

} // namespace

int main(int argc, char** argv) {
    self.line = read_command_line(services::arguments_of(argc, argv));
    switch (self.line.wanted) {
    case action::answer:
        return services::write_answer(self.line.answer);
    case action::check:
        return check();
    case action::status:
    case action::watch:
    case action::link_set:
        break;
    }
    return converse();
}
