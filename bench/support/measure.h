// What measurements have in common: medians, one core for everything that is compared, and the yardstick, a
// bare socket pair between two processes.
#pragma once

#include <cstddef>
#include <cstdio>
#include <sys/types.h>
#include <vector>

namespace bench {

// A measurement that could not be taken ends the program, with status 2.
[[noreturn]] void fail(const char* what);

// Where messaging directories are made: in memory, as the installed one is.
constexpr const char* messaging_folders = "/dev/shm";

double median(std::vector<double> values);

// The calling process and those that it starts run on one core from here on.
void pin_to_one_core();

// Two processes joined by a bare socket pair, the other one sending back what it gets.
class bare_socket_pair {
  public:
    static constexpr size_t message_size = 168;

    bare_socket_pair();
    ~bare_socket_pair();
    bare_socket_pair(const bare_socket_pair&) = delete;
    bare_socket_pair& operator=(const bare_socket_pair&) = delete;

    // Microseconds from send to receive, the mean over so many round trips.
    double one_way_us(int round_trips) const;

  private:
    int socket_ = -1;
    pid_t echo_ = -1;
};

} // namespace bench
