#include "services/oxpcsi-server/oxpcsi_server.h"

#include <cstdlib>
#include <cstring>
#include <string>

#include "base/trace.h"
#include "platform/oxhal_names.h"
#include "protocols/port_names.h"

namespace oxpcsi {

namespace {

constexpr char program[] = "oxpcsi-server";
constexpr char root_mailbox_name[] = "oxpcsi-server-root";
constexpr char example[] = "--port IDL_A1=eth1";

struct {
    const settings* chosen;
    oka_mailbox root;
    bool serving;
} self;

// --- The command line.

constexpr char purpose[] =
    "The port control service of a plain Linux node. Tells its clients which Ethernet ports the node\n"
    "has for links between units, and every change of their interfaces. Interfaces are followed by\n"
    "name in the network namespace of the process; they need not exist yet.";
constexpr char more_help[] =
    "\n"
    "Environment:\n"
    "  OXHAL_PORTS  the ports without --port, as qel-tavu has them: \"DiPort_A1=eth1:sec-a1\" is "
    "IDL_A1=eth1\n"
    "  OKA_DIR      directory of the messaging service (default /run/oka)\n"
    "  OKA_UNIT     name of this unit below it\n"
    "  ZEB_TRACE    groups of traces: names, 'all' or 'none' (default: error, info, state change)\n"
    "\n"
    "Exit status: 0 asked to end; 1 it cannot serve; 2 wrong command line.\n"
    "\n"
    "Example:\n"
    "  oxpcsi-server --port IDL_A1=eth1 --port IDL_B1=eth2\n";

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
        if (!strcmp(tavu::hardware_name_of(other.name), hardware_name))
            return "port '" + name + "' is given twice" +
                   (name == other.name ? "" : "; '" + std::string(other.name) + "' is the same");
        if (interface == other.interface)
            return "interface '" + interface + "' is given to two ports";
    }
    static_assert(std::size(tavu::usual_port_names) <= ports_max);
    port_setting& added = parsed.ports[parsed.port_count++];
    strcpy(added.name, name.c_str());
    strcpy(added.interface, interface.c_str());
    return "";
}

// Without a port on the command line the ports are those that the daemon secures, which OXHAL_PORTS names.
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
    port_control_server_update(port, facts);
}

// The server is published only now, so that it can answer all questions of its clients.
void handle_all_known() {
    self.serving &= port_control_server_start(self.root);
}

bool start(oka_mailbox root) {
    self.root = root;
    self.serving = true;
    const settings& chosen = *self.chosen;
    port_control_server_init(chosen.ports, chosen.port_count, own_network_namespace());
    const char* interfaces[ports_max];
    for (size_t i = 0; i < chosen.port_count; i++)
        interfaces[i] = chosen.ports[i].interface;
    return port_facts_start(interfaces, chosen.port_count, root, {handle_port_changed, handle_all_known});
}

bool handle(const oka_message* message) {
    if (!port_facts_dispatch_message(message) && !port_control_server_dispatch_message(message))
        TRACE_ERROR("OXPCSI: Message 0x%x from mailbox %u is not known; dropped", message->number,
                    oka_sender(message));
    return self.serving;
}

void stop() {
    port_control_server_stop();
    port_facts_stop();
}

} // namespace

std::optional<services::immediate_answer> read_command_line(services::argument_list arguments,
                                                            settings& parsed) {
    services::command command = {
        program,
        "[--port NAME=INTERFACE]...",
        purpose,
        more_help,
        {{"port", "NAME=INTERFACE", "a port's name and its network interface; once for each port", true}},
    };
    parsed = {};
    if (auto answer = command.read(arguments))
        return answer;
    const services::option& port = command.get("port");
    std::string error = port.given() ? "" : add_hardware_ports(parsed);
    for (size_t i = 0; error.empty() && i < port.values.size(); i++)
        error = add_port(port.values[i], parsed);
    if (!error.empty())
        return command.refuse(error);
    return std::nullopt;
}

int run(const settings& chosen) {
    self.chosen = &chosen;
    return services::exit_status_of(services::run_service({program, root_mailbox_name, start, handle, stop}));
}

} // namespace oxpcsi
