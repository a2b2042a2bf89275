// The address by which a port is known while the process lives: the clients derive the port's SCI from it, so
// it is unique and stays, whatever happens to the interface.
#pragma once

#include <array>
#include <cstdint>

namespace oxpcsi {

using port_identity = std::array<uint8_t, 6>; // an Ethernet address

constexpr port_identity no_identity = {};

// For a port whose interface has no address that can serve: made from the machine's id, the unit and the
// port's name, marked as locally administered. The same after a restart; without /etc/machine-id, until the
// machine is started again.
port_identity derive_identity(const char* port);

} // namespace oxpcsi
