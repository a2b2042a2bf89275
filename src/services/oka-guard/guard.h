// Ends processes that stand still. The sign of life of a process is that it closes a connection to one of its
// mailboxes which says nothing and ends. It needs no timer and no message of its own for that, and a process
// that does not run at all is left to its supervisor.
#pragma once

#include <string>
#include <vector>

namespace guard {

// Tries every socket once. Waits until all have answered, but for so many seconds at most, and kills the
// processes behind those that have not. A second in which this process itself did not run does not count.
// Returns what it did, a line for each.
std::vector<std::string> look(const std::vector<std::string>& sockets, unsigned patience_s);

} // namespace guard
