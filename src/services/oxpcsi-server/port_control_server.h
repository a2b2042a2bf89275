// The server's side of the port control protocol: answers clients, and indicates changes of the node's ports
// to subscribers. Its owner gives it the facts of the ports.
//
// A client is identified by its mailbox and the connection reference that it chose. It is given a second
// reference, which its later requests contain, and is removed when it terminates or its mailbox is gone. The
// protocol can indicate a port's states but not its address, from which clients derive lasting identifiers.
// Therefore a port keeps the address that its interface had first, or one of its own when a client asks
// before there is an interface: one that comes late, or changes, costs the other ports nothing.
#pragma once

#include "protocols/oxpcsi_messages.h"
#include "services/oxpcsi-server/port_facts.h"

namespace oxpcsi {

constexpr char server_mailbox_name[] = "oxpcsi-server";
constexpr unsigned clients_max = 32;
constexpr unsigned subscriptions_per_client_max = 16;

struct port_setting {
    char name[16];
    char interface[16];
};

// The ports, each of which carries links between units, and their network namespace.
void port_control_server_init(const port_setting* ports, size_t count, const char* name_space);

// Begins to serve, with a mailbox cloned from `root`. False, after an error trace, when the name is taken.
[[nodiscard]] bool port_control_server_start(oka_mailbox root);
void port_control_server_stop();

// Sets the port's facts; called before the start too.
void port_control_server_update(size_t port, const port_facts& facts);

// True when the message was for the server's mailbox.
bool port_control_server_dispatch_message(const oka_message* message);

} // namespace oxpcsi
