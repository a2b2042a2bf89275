// The port control service of a simulated unit: the server that ships, with facts that the conductor sends
// instead of the kernel.
#include <cstdio>
#include <cstdlib>
#include <iterator>

#include "platform/oka_timer.h"
#include "platform/zeb.h"
#include "protocols/port_names.h"
#include "services/oxpcsi-server/port_control_server.h"
#include "simulate/ports.h"

int main() {
    (void)zeb_init();
    zeb_register_thread_name("oxpcsi-server");
    if (!oka_timer_service_init() || oka_init(37, 0, 0, 0, 0) != 0)
        return 1;
    oka_mailbox root = oka_create_mailbox(simulate::ports_mailbox_name, 0);
    oxpcsi::port_setting ports[std::size(tavu::usual_port_names)];
    for (size_t port = 0; port < std::size(ports); port++) {
        snprintf(ports[port].name, sizeof ports[port].name, "%s", tavu::usual_port_names[port]);
        snprintf(ports[port].interface, sizeof ports[port].interface, "eth%zu", port + 1);
    }
    oxpcsi::port_control_server_init(ports, std::size(ports), "");
    const char* mpid = getenv("MPID");
    auto unit = static_cast<uint8_t>(mpid ? atoi(mpid) : 0);
    bool serves = true;
    while (oka_message* message = serves ? oka_receive(nullptr, OKA_WAIT_FOREVER, OKA_ANY_SENDER) : nullptr) {
        if (message->number == simulate::PORT_IS && oka_size(message) == sizeof(simulate::port_is)) {
            auto& told = *reinterpret_cast<const simulate::port_is*>(message);
            bool is_up = told.is_up != 0;
            oxpcsi::port_control_server_update(
                told.port, {.present = true,
                            .unlocked = true,
                            .enabled = is_up,
                            .line_rate = is_up ? 10000u : 0u,
                            .index = told.port + 1,
                            .mac_address = {2, 0, 0, 0, unit, static_cast<uint8_t>(told.port + 1)}});
        } else if (message->number == simulate::SERVE) {
            serves = oxpcsi::port_control_server_start(root);
        } else {
            oxpcsi::port_control_server_dispatch_message(message);
        }
        oka_free(&message);
    }
    return 1;
}
