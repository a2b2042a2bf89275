// What the topology manager told of the links, and how it is shown.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "protocols/topology_messages.h"

namespace tavuctl {

struct picture {
    services::topology_snapshot head;
    std::vector<services::topology_link> links;
};

// Nothing when the message is not a whole, well-formed snapshot.
std::optional<picture> read_picture(const oka_message* message);
bool is_well_formed(const services::topology_link& link);

// Ages are shown `elapsed_ms` older than they arrived.
std::string show_table(const picture& shown, uint64_t elapsed_ms = 0);
// One line, without its end.
std::string show_json(const picture& shown);
// A line for everything that differs from the picture before; for whom a table would be too much.
std::string show_changes(const picture& before, const picture& after);
std::string show_link(const services::topology_link& link);

// "0.4 s", "12.3 s", "3 m 12 s", "5 h 03 m", "2 d 5 h"
std::string show_duration(uint64_t ms);

} // namespace tavuctl
