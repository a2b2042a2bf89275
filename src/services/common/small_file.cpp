#include "services/common/small_file.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace services {

namespace {

// Until the end of the file, or an octet more than is allowed. False with errno.
bool read_all(int file, std::string& content, size_t size_max) {
    content.resize(size_max + 1);
    size_t length = 0;
    while (length < content.size()) {
        ssize_t size = read(file, content.data() + length, content.size() - length);
        if (size < 0 && errno == EINTR)
            continue;
        if (size < 0)
            return false;
        if (size == 0)
            break;
        length += static_cast<size_t>(size);
    }
    content.resize(length);
    return true;
}

} // namespace

small_file read_small_file(const char* path, size_t size_max) {
    small_file result;
    // A FIFO in its place must not stop the process.
    int file = open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    struct stat facts = {};
    bool is_open = file >= 0 && fstat(file, &facts) == 0;
    if (is_open && !S_ISREG(facts.st_mode)) {
        result.error = "cannot be read: it is no regular file";
    } else if (!is_open || !read_all(file, result.content, size_max)) {
        result.is_missing = errno == ENOENT;
        result.error = std::string("cannot be read: ") + strerror(errno);
    } else if (result.content.size() > size_max) {
        result.error = "is larger than " + std::to_string(size_max / 1024) + " KiB";
    }
    if (file >= 0)
        close(file);
    if (!result.error.empty())
        result.content.clear();
    return result;
}

} // namespace services
