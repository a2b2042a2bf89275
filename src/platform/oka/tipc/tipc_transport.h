// Messaging between the hosts of a cluster, over the kernel's TIPC.
//
// Mailbox N of unit U is a listening socket with a service address that is derived from U and N; the first
// packet of every connection carries both in full, since different names may share an address. A search is
// a subscription at the kernel's topology server, so nothing is ever polled; the death of a process, of a
// machine or of the cable ends connections, the latter two within the tolerance of the TIPC link.
//
// Keys of MACsec travel here. So the transport starts only where the node's TIPC traffic is encrypted, or
// where OKA_TIPC_CLEAR=yes says that it need not be. The kernel does not tell whether it has a node key. So
// the program that sets the key, as root, leaves a mark: a file of root's, OKA_TIPC_KEY_MARK or
// /run/oka-tipc-key, with the name of the network namespace that was given the key ("net:[4026531840]").
//
// Every process of the cluster's machines may use TIPC. So both ends of a connection prove that they know the
// secret in OKA_TIPC_SECRET or /etc/qel-tavu/group.secret, and only the mailboxes that other units need are
// published.
#pragma once

#include "platform/oka/core/core.h"

namespace oka {

extern const transport tipc_transport;

} // namespace oka
