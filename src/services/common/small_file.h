// Reading a configuration file, which is small, whatever somebody put in its place.
#pragma once

#include <cstddef>
#include <string>

namespace services {

struct small_file {
    std::string content;
    std::string error; // why there is no content: "cannot be read: No such file or directory", "is larger
                       // than 64 KiB"
    bool is_missing = false;
};

// At most `size_max` octets, a multiple of 1024.
small_file read_small_file(const char* path, size_t size_max);

} // namespace services
