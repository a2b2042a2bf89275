// Which messages a confirmation waited for, one after the other, read from what two daemons traced: back from
// the last message to what its sender received before it, to the send of that one, and so on.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace bench {

struct path_step {
    uint32_t number;
    bool between_processes;
};

// `traces` holds the send and receive records of each daemon, with stamps. The path ends with the last send
// of `last` by the first daemon and begins with its receipt of `first`. `located` is a locate's answer, which
// nobody sends: it was asked for by what came before it. Empty when the records do not tell.
std::vector<path_step> critical_path(const std::string (&traces)[2], uint32_t first, uint32_t last,
                                     uint32_t located);

} // namespace bench
