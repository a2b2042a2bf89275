#include "services/common/small_file.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace services {

namespace {

// False with errno.
bool read_all(int file, std::span<char> into, size_t& size) {
    while (size < into.size()) {
        ssize_t more = read(file, into.data() + size, into.size() - size);
        if (more < 0 && errno == EINTR)
            continue;
        if (more <= 0)
            return more == 0;
        size += static_cast<size_t>(more);
    }
    return true;
}

} // namespace

file_start read_start_of_file(const char* path, std::span<char> into) {
    file_start result;
    // Opening a FIFO must not wait for a writer.
    int file = open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    struct stat facts = {};
    bool is_open = file >= 0 && fstat(file, &facts) == 0;
    result.mode = facts.st_mode;
    if (is_open && !S_ISREG(facts.st_mode)) {
        result.error = "cannot be read: it is no regular file";
    } else if (!is_open || !read_all(file, into, result.size)) {
        result.is_missing = errno == ENOENT;
        result.error = std::string("cannot be read: ") + strerror(errno);
    }
    if (file >= 0)
        close(file);
    return result;
}

small_file read_small_file(const char* path, size_t size_max) {
    small_file result;
    result.content.resize(size_max + 1);
    file_start read = read_start_of_file(path, result.content);
    result.is_missing = read.is_missing;
    result.error = read.error;
    if (read.size > size_max)
        result.error = "is larger than " + std::to_string(size_max / 1024) + " KiB";
    result.content.resize(result.error.empty() ? read.size : 0);
    return result;
}

} // namespace services
