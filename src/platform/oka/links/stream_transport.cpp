#include "platform/oka/links/stream_transport.h"

#include <cerrno>
#include <cstring>

#include "platform/oka/core/oka_trace.h"
#include "platform/oka/links/group.h"
#include "platform/oka/links/link.h"

namespace oka {

int start_stream(const family& over, const char* own_unit) {
    if (int error = read_group())
        return error;
    if (int error = over.start(own_unit))
        return error;
    if (start_links(listen_again))
        return 0;
    int error = errno;
    OKA_ERROR("OKA: No random numbers: %s", strerror(error));
    return error;
}

void stop_stream(const family& over) {
    stop_listening();
    if (over.stop)
        over.stop();
    stop_links();
    forget_group();
}

} // namespace oka
