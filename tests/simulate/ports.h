// What the conductor tells the simulated port control service.
#pragma once

#include <cstdint>

namespace simulate {

constexpr const char* ports_mailbox_name = "oxpcsi-server-root";

constexpr uint32_t PORT_IS = 0x51400001;
constexpr uint32_t SERVE = 0x51400002; // once every port is told

struct port_is {
    uint32_t number;
    uint32_t port;
    uint32_t is_up;
};

} // namespace simulate
