#include "services/oxpcsi-server/oxpcsi_server.h"

#include <cstdlib>
#include <cstring>
#include <string>

#include "base/trace.h"
#include "platform/oka_timer.h"
#include "platform/oxhal_names.h"
#include "protocols/port_names.h"
#include "services/common/options.h"

namespace oxpcsi {

namespace {

constexpr char program[] = "oxpcsi-server";
constexpr char root_mailbox_name[] = "oxpcsi-server-root";
constexpr char example[] = "--port IDL_A1=eth1";

struct {
    oka_mailbox root;
    bool serving;
} self;

// --- The command line.

command complain(const std::string& what) {
    fprintf(stderr, "%s: %s\nTry '%s --help'.\n", program, what.c_str(), program);
    return command::end_with_usage;
}

void print_help(std::span<const services::option> options) {
    printf("Usage: %s [--port NAME=INTERFACE]...\n\n"
           "The port control service of a plain Linux node. Tells its clients which Ethernet ports the node\n"
           "has for links between units, and every change of their interfaces. Interfaces are followed by\n"
           "name in the network namespace of the process; they need not exist yet.\n\n"
           "Options:\n%s\n"
           "Environment:\n"
           "  OXHAL_PORTS  the ports without --port, as qel-tavu has them: \"DiPort_A1=eth1:sec-a1\" is "
           "IDL_A1=eth1\n"
           "  OKA_DIR      directory of the messaging service (default /run/oka)\n"
           "  OKA_UNIT     name of this unit below it\n"
           "  ZEB_TRACE    groups of traces: names, 'all' or 'none' (default: error, info, state change)\n\n"
           "Exit status: %d when it cannot serve, %d for a wrong command line. Otherwise it does not end.\n\n"
           "Example:\n  %s %s --port IDL_B1=eth2\n",
           program, services::options_help(options).c_str(), exit_failure, exit_usage, program, example);
}

// Adds a port to the settings; otherwise says what is wrong with it.
std::string add_port(const std::string& value, settings& parsed) {
    size_t equals = value.find('=');
    if (equals == std::string::npos)
        return "port '" + value + "' has no interface; write it as in " + example;
    std::string name = value.substr(0, equals);
    std::string interface = value.substr(equals + 1);
    const char* hardware_name = tavu::hardware_name_of(name.c_str());
    if (!hardware_name)
        return "'" + name + "' is no port; there are " + tavu::usual_port_names_text();
    if (!oxhal_valid_interface_name(interface.c_str()))
        return "'" + interface + "' is not an interface name; 'ip link' shows those of this node";
    for (size_t i = 0; i < parsed.port_count; i++) {
        const port_setting& other = parsed.ports[i];
        if (tavu::hardware_name_of(other.name) == hardware_name)
            return "port '" + name + "' is given twice" +
                   (name == other.name ? "" : "; '" + std::string(other.name) + "' is the same");
        if (interface == other.interface)
            return "interface '" + interface + "' is given to two ports";
    }
    port_setting& added = parsed.ports[parsed.port_count++];
    strcpy(added.name, name.c_str());
    strcpy(added.interface, interface.c_str());
    return "";
}

// Without a port on the command line they are those that the daemon secures, so that nobody writes them
// twice.
std::string add_hardware_ports(settings& parsed) {
    const char* text = getenv("OXHAL_PORTS");
    if (!text || !*text)
        return std::string("no port is given; name each with an option such as ") + example +
               ", or set OXHAL_PORTS";
    oxhal_port_settings hardware;
    char wrong[256];
    if (!oxhal_read_ports(text, &hardware, wrong, sizeof wrong))
        return std::string("OXHAL_PORTS: ") + wrong;
    for (uint32_t i = 0; i < hardware.count; i++) {
        const char* name = tavu::idl_name_of(hardware.ports[i].name);
        if (!name) {
            fprintf(stderr, "%s: OXHAL_PORTS: '%s' carries no link and is left out\n", program,
                    hardware.ports[i].name);
            continue;
        }
        std::string error = add_port(std::string(name) + "=" + hardware.ports[i].common_port, parsed);
        if (!error.empty())
            return error;
    }
    return parsed.port_count > 0 ? "" : "OXHAL_PORTS: " + tavu::no_port_for_links();
}

// --- The process.

void handle_port_changed(size_t port, const port_facts& facts) {
    self.serving &= port_control_server_update(port, facts);
}

// Clients find a server that knows what it is asked.
void handle_all_known() {
    self.serving &= port_control_server_start(self.root);
}

bool start(const settings& set) {
    if (!oka_timer_service_init() || oka_init(37, 0, 0, 0, 0) != 0)
        return false;
    self.root = oka_create_mailbox(root_mailbox_name, 0);
    if (self.root == OKA_MAILBOX_NONE) {
        TRACE_ERROR("OXPCSI: The mailbox '%s' cannot be had; does another one run in this unit?",
                    root_mailbox_name);
        return false;
    }
    port_control_server_init(set.ports, set.port_count, own_network_namespace());
    const char* interfaces[ports_max];
    for (size_t i = 0; i < set.port_count; i++)
        interfaces[i] = set.ports[i].interface;
    return port_facts_start(interfaces, set.port_count, self.root, {handle_port_changed, handle_all_known});
}

void serve() {
    while (self.serving) {
        oka_message* message = oka_receive(nullptr, OKA_WAIT_FOREVER, OKA_ANY_SENDER);
        if (!message)
            break;
        if (!port_facts_dispatch_message(message) && !port_control_server_dispatch_message(message))
            TRACE_ERROR("OXPCSI: Message 0x%x from mailbox %u is for nobody; dropped", message->number,
                        oka_sender(message));
        oka_free(&message);
    }
}

} // namespace

command parse_command_line(int argc, const char* const* argv, settings& parsed) {
    services::option options[] = {
        {"port", "NAME=INTERFACE", "a port's name and its network interface; once for each port", true},
        {"help", nullptr, "shows this text"},
        {"version", nullptr, "shows the version"},
    };
    const auto& [port, help, version] = options;
    std::vector<std::string> operands;
    std::string error;
    parsed = {};
    if (!services::parse_options({argv + 1, static_cast<size_t>(argc - 1)}, options, operands, error))
        return complain(error);
    if (help.given()) {
        print_help(options);
        return command::end_well;
    }
    if (version.given()) {
        printf("%s %s\n", program, services::project_version());
        return command::end_well;
    }
    if (!operands.empty())
        return complain("unexpected argument '" + operands[0] + "'");
    if (!port.given()) {
        error = add_hardware_ports(parsed);
        if (!error.empty())
            return complain(error);
    }
    for (const std::string& value : port.values) {
        error = add_port(value, parsed);
        if (!error.empty())
            return complain(error);
    }
    return command::serve;
}

int run(int argc, const char* const* argv) {
    settings parsed;
    switch (parse_command_line(argc, argv, parsed)) {
    case command::end_well:
        return 0;
    case command::end_with_usage:
        return exit_usage;
    case command::serve:
        break;
    }
    int tracing = zeb_init();
    if (tracing == 0 || tracing == 4)
        zeb_register_thread_name(program);
    self.serving = start(parsed);
    serve();
    port_control_server_stop();
    port_facts_stop();
    oka_timer_service_stop();
    oka_exit();
    return exit_failure;
}

} // namespace oxpcsi
