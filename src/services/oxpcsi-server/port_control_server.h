// The server's side of the port control protocol: answers clients, and indicates to subscribers what becomes
// of the node's ports. Where the facts come from is its owner's business.
//
// A client is known by its mailbox and the connection reference that it chose; it is given one that its
// later requests carry, and is forgotten when it terminates or its mailbox is gone. The protocol can indicate
// a port's states but not its address, of which clients make lasting identifiers: when an address changes
// that a client was told, the server's mailbox is made anew, and clients start over as with a server that
// was restarted.
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

// Takes the ports, all of which carry inter-unit links, and the network namespace that they are in.
void port_control_server_init(const port_setting* ports, size_t count, const char* name_space);

// Begins to serve, at a mailbox cloned from `root`. False, after an error trace, when the name is taken.
[[nodiscard]] bool port_control_server_start(oka_mailbox root);
void port_control_server_stop();

// The port's facts are these from now on; before or after the start. False when the server had to make its
// mailbox anew and could not: it does not serve any more.
[[nodiscard]] bool port_control_server_update(size_t port, const port_facts& facts);

// True when the message was for the server's mailbox.
bool port_control_server_dispatch_message(const oka_message* message);

} // namespace oxpcsi
