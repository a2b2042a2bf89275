// The kinds of faults, and the error traces that are to be expected of each.
#pragma once

#include <array>
#include <cstdint>
#include <string_view>

namespace simulate {

enum fault : unsigned {
    KILL_DAEMON,
    KILL_TOPOLOGY_MANAGER,
    KILL_PORT_CONTROL,
    KILL_UNIT,
    CUT,
    DELAY,
    STALL,
    UNIT_STALL,
    SLOW,
    SECY_FAILS,
    PORT_FLAPS,
    LINK_EDITED,
    INTRUDER,
    FAULT_KINDS,
};

constexpr std::array<const char*, FAULT_KINDS> fault_names = {
    "daemon killed", "topology manager killed", "port control killed", "unit killed",
    "messaging cut", "deliveries delayed",      "process stalled",     "unit stalled",
    "process slow",  "SecY call fails",         "port flaps",          "link edited",
    "intruder",
};

static_assert(fault_names.back(), "every kind has a name");

// Whether the faults of that set (a bit each) may leave this line behind.
bool is_explained(std::string_view line, unsigned faults);

} // namespace simulate
