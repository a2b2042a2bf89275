// What the topology manager says about the links at one moment, and how it is shown.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "protocols/topology_messages.h"

namespace tavuctl {

struct snapshot {
    services::topology_snapshot head;
    std::vector<services::topology_link> links;
};

// Nothing when the message is not a whole, well-formed snapshot.
std::optional<snapshot> read_snapshot(const oka_message* message);
bool is_well_formed(const services::topology_link& link);

// `elapsed_ms` is the time since the snapshot arrived; the ages shown are greater by it.
std::string show_table(const snapshot& shown, uint64_t elapsed_ms = 0);
// One line, without the line end.
std::string show_json(const snapshot& shown);
// A line for each thing that differs from the snapshot before.
std::string show_changes(const snapshot& before, const snapshot& after);
std::string show_link(const services::topology_link& link);

// "0.4 s", "12.3 s", "3 m 12 s", "5 h 03 m", "2 d 5 h"
std::string show_duration(uint64_t ms);

} // namespace tavuctl
