// A family of sockets as a transport of the messaging core.
#pragma once

#include "platform/oka/core/core.h"
#include "platform/oka/links/family.h"
#include "platform/oka/links/listener.h"
#include "platform/oka/links/search.h"

namespace oka {

int start_stream(const family& over, const char* own_unit);
void stop_stream(const family& over);

template<const family& over>
inline constexpr transport stream_transport = {
    .name = over.name,
    .between_hosts = over.between_hosts,
    .start = [](const char* own_unit) { return start_stream(over, own_unit); },
    .stop = [] { stop_stream(over); },
    .announce = [](oka_mailbox mailbox, const char* name) { return announce_listener(over, mailbox, name); },
    .withdraw = [](oka_mailbox mailbox) { withdraw_listener(over, mailbox); },
    .locate = [](uint32_t id, const char* unit, const char* name) { start_search(over, id, unit, name); },
    .cancel_locate = [](uint32_t id) { cancel_search(over, id); }};

} // namespace oka
