#include "platform/oka/unix/unix_transport.h"

#include <cerrno>
#include <cstring>

#include "platform/oka/core/oka_trace.h"
#include "platform/oka/links/link.h"
#include "platform/oka/unix/unix_directory.h"
#include "platform/oka/unix/unix_listener.h"
#include "platform/oka/unix/unix_search.h"

namespace {

int start(const char* own_unit) {
    if (int error = oka::set_messaging_directory(own_unit))
        return error;
    if (oka::start_links(oka::listen_again))
        return 0;
    int error = errno;
    OKA_ERROR("OKA: No random numbers: %s", strerror(error));
    return error;
}

} // namespace

const oka::transport oka::unix_transport = {.name = "unix",
                                            .between_hosts = false,
                                            .start = start,
                                            .stop = stop_links,
                                            .announce = announce_listener,
                                            .withdraw = withdraw_listener,
                                            .locate = start_search,
                                            .cancel_locate = cancel_search};
