// Reading a configuration file. It is small, and what was put in its place by mistake does no harm.
#pragma once

#include <cstddef>
#include <span>
#include <string>
#include <sys/types.h>

namespace services {

struct file_start {
    size_t size = 0;
    mode_t mode = 0;
    std::string error; // why nothing was read: "cannot be read: No such file or directory"
    bool is_missing = false;
};

// Reads a regular file from its start until its end or that of `into`. No copy is kept elsewhere, so that a
// file may hold a secret.
file_start read_start_of_file(const char* path, std::span<char> into);

struct small_file {
    std::string content;
    std::string error; // why there is no content: as above, or "is larger than 64 KiB"
    bool is_missing = false;
};

// At most `size_max` octets, a multiple of 1024.
small_file read_small_file(const char* path, size_t size_max);

} // namespace services
